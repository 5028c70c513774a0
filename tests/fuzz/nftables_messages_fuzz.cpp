// Any bytes as what the kernel says: never a crash or a read beyond the end, and a rule that is read is written the
// same.
#include "nftables/attributes.hpp"
#include "nftables/connection.hpp"
#include "nftables/generation_watch.hpp"
#include "nftables/rule_message.hpp"
#include "nftables/trace_watch.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

// Answers everything with the input, cut into datagrams by its first byte. The sequence number is made to fit, or
// nothing of it would be looked at.
class Script : public nftables::Socket
{
public:
    explicit Script(nftables::Bytes input) : m_left(input) {}

    int send(nftables::Bytes datagram) override
    {
        std::memcpy(&m_sequence, datagram.data() + 8, sizeof m_sequence);
        return 0;
    }

    Received receive(std::span<std::uint8_t> into, bool) override
    {
        if (m_left.empty())
            return {0, EAGAIN};
        const std::size_t size = std::min<std::size_t>({m_left.size(), 16U + m_left[0] * 8U, into.size()});
        std::copy_n(m_left.begin(), size, into.begin());
        m_left = m_left.subspan(size);
        nftables::Bytes left(into.data(), size);
        while (const nlmsghdr* message = nftables::takeMessage(left)) {
            if (message->nlmsg_seq < 16)
                const_cast<nlmsghdr*>(message)->nlmsg_seq += m_sequence;
        }
        return {size, 0};
    }

    void makeRoom(std::size_t, std::size_t) override {}

private:
    nftables::Bytes m_left;
    std::uint32_t m_sequence = 0;
};

void readRule(const nlmsghdr* message)
{
    nftables::Expressions expressions;
    const nftables::RuleView view = nftables::readRule(message);
    if (!view.readExpressions(expressions))
        return;
    const std::optional<ebtables::Rule> rule = nftables::decode(expressions);
    if (!rule)
        return;
    nftables::Expressions again;
    nftables::encode(*rule, again);
    if (nftables::decode(again) != rule)
        std::abort();
    for (const char c : toText(*rule)) {
        if (c < ' ' || c > '~')
            std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    std::vector<std::uint64_t> aligned(size / 8 + 1);
    std::memcpy(aligned.data(), data, size);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(aligned.data());
    nftables::readGenerationChange(bytes, size);
    nftables::readTraceEvent({data, size});
    nftables::Bytes left(bytes, size);
    while (const nlmsghdr* message = nftables::takeMessage(left))
        readRule(message);

    nftables::Connection connection([&](int&) { return std::make_unique<Script>(nftables::Bytes(bytes, size)); });
    std::vector<nftables::ChainView> chains;
    std::uint64_t table = 0;
    bool settled = true;
    connection.generation();
    connection.readChains(chains, table);
    connection.readRules([](const nftables::RuleView& rule) { readRule(rule.message); }, settled);
    nftables::Batch batch(1);
    batch.addRule("A", ebtables::Rule(), {});
    connection.apply(batch);
    return 0;
}
