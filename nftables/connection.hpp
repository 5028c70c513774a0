// The kernel's bridge filter table: read it, change it, know its generation.
//
// Failures are values: Answer says what they mean for what is to be done next. Threading: one thread; a connection has
// at most one request under way. No operation throws but std::bad_alloc.
#pragma once

#include "ebtables/command.hpp"
#include "ebtables/table.hpp"
#include "nftables/batch.hpp"
#include "nftables/rule_message.hpp"
#include "nftables/socket.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nftables
{

enum class Answer {
    Done,
    Refused,     // the kernel takes some of the messages never: nothing was changed
    Changed,     // somebody else has changed the tables since the generation named: nothing was changed
    Forbidden,   // no right: nothing was changed
    Shortage,    // memory, buffers, a busy moment: nothing was changed, and the same may do later
    Unsupported, // this kernel has no such tables
    Unclear,     // the answer is missing or makes no sense: it may have been done, or not
};

struct Refusal {
    std::size_t message; // its index in the batch
    int error;           // as in errno
    std::string text;    // what it means, with the kernel's own words where it had some
};

struct NewRule {
    std::size_t message;
    std::uint64_t handle;
};

struct Result {
    Answer answer = Answer::Unclear;
    std::string reason; // for a person, unless Done
    std::vector<Refusal> refusals;
    std::vector<NewRule> newRules;           // Done: the first and the last one of the batch
    std::optional<std::uint32_t> generation; // Done: of the tables after it, when the kernel said so
};

struct ChainView {
    std::string name;
    bool builtIn = false; // it has the hook of the built-in chain of this name
    bool foreign = false; // it has a hook, but another one
    std::string policy;   // of a built-in one: ACCEPT or DROP
};

class Connection
{
public:
    // The socket is opened by the first request.
    explicit Connection(SocketOpener opener = openSocket);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Result generation();

    // The number of the bridge family's table "filter", or of another one, which no other table has or gets, or 0 when
    // there is none; and its chains, in the kernel's order.
    Result readChains(std::vector<ChainView>& chains, std::uint64_t& table, std::string_view name = filterTable);

    // A list of anything, as in NFT_MSG_GETSET: `put` adds what the request needs beside its header, at most 400 bytes;
    // visit says false for a message that makes no sense.
    using Visit = std::function<bool(const nlmsghdr*)>;
    Result list(std::uint16_t type, const std::function<void(nlmsghdr*)>& put, const Visit& visit, bool& settled);

    // Calls back for each rule of the table, chain by chain, in order. settled: false when the tables changed
    // meanwhile: rules may be missing or doubled.
    Result readRules(const std::function<void(const RuleView&)>& visit, bool& settled);

    // The same for one rule. Where there are thousands, that is sooner done than to read them all.
    Result readRule(const std::string& chain, std::uint64_t handle, const std::function<void(const RuleView&)>& visit);

    Result apply(Batch& batch);

    // Whether the kernel would take a batch from this process: sends one that is out of date whatever happens, which
    // costs a few small system calls. Done, or why not.
    Result mayChange();

private:
    bool open(Result& result);
    Result failed(int error) const;
    Result brokenOff(int error);
    static Visit visitRule(const std::function<void(const RuleView&)>& visit);
    nlmsghdr* beginRequest(std::uint16_t type, std::uint16_t flags);
    Result ask(const nlmsghdr* request, const Visit& visit, bool& settled);
    Result classify(const std::vector<Refusal>& errors, std::optional<int> batchError);
    bool takeAnswers(std::uint32_t first, const Batch& batch, Result& result, std::optional<int>& batchError,
                     std::vector<Refusal>& errors);

    SocketOpener m_opener;
    std::unique_ptr<Socket> m_socket;
    bool m_hadRight = false; // the socket, once
    std::uint32_t m_sequence;
    alignas(8) std::array<std::uint8_t, 512> m_request; // longer than any
};

} // namespace nftables
