// A transaction to be: changes of the bridge family's filter table that the kernel takes all at once or not at all.
#pragma once

#include "ebtables/command.hpp"
#include "nftables/expressions.hpp"
#include "nftables/rule_message.hpp"
#include "nftables/socket.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct nlmsghdr;

namespace nftables
{

// Where a new rule goes.
struct Place {
    enum class Where { AtTheEnd, InFront, Behind };
    Where where = Where::AtTheEnd;
    std::uint64_t handle = 0; // of the rule that it goes behind
};

// Messages in order. What an operation returns is the message's index, by which the answer names it. Rules and chains
// must exist, or have been added before, when a message names them. No operation throws but std::bad_alloc.
class Batch
{
public:
    // generation: of the tables that the changes are meant for. When the kernel's is another one by then, it refuses
    // the batch. Without, it is taken as it comes. The table is made when it is missing.
    // table: in the bridge family. flags: that it is made with, as in NFT_TABLE_F_OWNER.
    explicit Batch(std::optional<std::uint32_t> generation, std::string table = filterTable, std::uint32_t flags = 0);

    std::size_t addBuiltInChain(const std::string& chain, const std::string& policy);
    std::size_t setPolicy(const std::string& builtInChain, const std::string& policy);
    std::size_t addChain(const std::string& chain);
    std::size_t deleteChain(const std::string& chain); // it must be empty by then
    std::size_t addRule(const std::string& chain, const ebtables::Rule& rule, Place place,
                        const Counters& counters = {}, ebtables::Origin mark = ebtables::noOrigin);
    std::size_t addChainPolicy(const std::string& chain, const std::string& policy); // at the end of a user chain
    std::size_t deleteRule(const std::string& chain, std::uint64_t handle);
    std::size_t deleteRules(const std::string& chain);
    std::size_t deleteTable(); // with all that is in it

    // Another message: `put` is called with it to add its attributes, at most `size` bytes of them. type: as in
    // NFT_MSG_NEWSET.
    template <typename Put>
    std::size_t add(std::uint16_t type, std::uint16_t flags, std::size_t size, const Put& put)
    {
        nlmsghdr* message = begin(type, flags, size);
        put(message);
        return end(message);
    }

    const std::string& table() const { return m_table; }
    std::size_t messages() const { return m_count; }

    // The whole datagram: message `index` has the sequence number first + `ahead` + index. Nothing can be added any
    // more.
    Bytes finish(std::uint32_t first);

    static constexpr std::uint32_t ahead = 2; // the beginning, and the table

    // The sequence numbers that it takes.
    std::uint32_t sequenceNumbers() const { return static_cast<std::uint32_t>(m_count) + ahead + 1; }

private:
    nlmsghdr* begin(std::uint16_t type, std::uint16_t flags, std::size_t size = usualSize);
    nlmsghdr* beginControl(std::uint16_t type, std::uint16_t flags, std::size_t size = usualSize);
    std::size_t end(const nlmsghdr* message);
    std::size_t putRule(const std::string& chain, const Expressions& expressions,
                        const std::optional<ebtables::EthertypeMatch>& ethertype, Place place, bool isPolicy,
                        ebtables::Origin mark = ebtables::noOrigin);

    static constexpr std::size_t usualSize = 4000; // of a message's attributes, by far

    std::string m_table;
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_used = 0;
    std::size_t m_count = 0;
    std::size_t m_last = 0;      // where the last message begins
    std::size_t m_firstRule = 0; // where the first new rule's does; 0: none
    std::size_t m_lastRule = 0;
    Expressions m_expressions;
};

} // namespace nftables
