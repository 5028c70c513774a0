#include "nftables/connection.hpp"

#include "nftables/attributes.hpp"
#include "text/one_line.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_bridge.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace nftables
{

namespace
{

constexpr int notNow = 85;                     // ERESTART, which programs do not get to see otherwise
constexpr std::size_t bufferSize = 32U << 10U; // the kernel fills no more
constexpr std::uint16_t tables = NFNL_SUBSYS_NFTABLES << 8U;
constexpr std::size_t headerSize = sizeof(nfgenmsg);

// What waits in the socket takes more room than its bytes.
constexpr std::size_t roomForError = 1U << 10U;
constexpr std::size_t mostRoom = 64U << 20U;

constexpr std::uint32_t generationThatNeverIs = ~0U;

// Not kept: an idle daemon has no use for it.
class Buffer
{
public:
    std::span<std::uint8_t> room() const { return {m_bytes.get(), bufferSize}; }

private:
    std::unique_ptr<std::uint8_t[]> m_bytes = std::make_unique_for_overwrite<std::uint8_t[]>(bufferSize);
};

struct ErrorMessage {
    int error = 0; // as in errno; 0: an acknowledgement
    std::string text;
};

// Nothing when the message is none that the kernel sends.
std::optional<ErrorMessage> readError(const nlmsghdr* message)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr))
        return std::nullopt;
    const auto* const content = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
    if (content->error > 0 || content->error < -4095)
        return std::nullopt;
    ErrorMessage result{-content->error, {}};
    if (result.error == 0)
        return result;
    result.text = result.error == notNow ? "the tables have changed" : std::strerror(result.error);
    const bool capped = (message->nlmsg_flags & NLM_F_CAPPED) != 0;
    if ((message->nlmsg_flags & NLM_F_ACK_TLVS) == 0 || !capped)
        return result;
    forEachAttribute(message, sizeof(nlmsgerr), [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG)
            result.text += " (" + text::oneLine(textOf(attribute)) + ')';
    });
    return result;
}

// What an error of a whole request says.
Answer answerTo(int error)
{
    switch (error) {
    case EPERM:
    case EACCES:
        return Answer::Forbidden;
    case notNow:
        return Answer::Changed;
    case EINTR:
    case EAGAIN:
    case ENOMEM:
    case ENOBUFS:
    case EMSGSIZE:
    case EMFILE:
    case ENFILE:
        return Answer::Shortage;
    case EOPNOTSUPP:
    case EPROTONOSUPPORT:
    case EAFNOSUPPORT:
    case EINVAL:
        return Answer::Unsupported;
    default:
        return Answer::Unclear;
    }
}

std::string advice(Answer answer, int error)
{
    if (answer == Answer::Forbidden)
        return "; run as root or with CAP_NET_ADMIN";
    if (error == EMSGSIZE)
        return "; more than this process may send at once: CAP_NET_ADMIN of the machine lifts that";
    if (answer == Answer::Shortage)
        return "; is there memory enough?";
    if (answer == Answer::Unsupported)
        return "; is the kernel built with nf_tables for bridges?";
    return "";
}

// Of a list that the kernel could not finish.
int errorAtTheEnd(const nlmsghdr* message)
{
    std::int32_t error = 0;
    if (mnl_nlmsg_get_payload_len(message) >= sizeof error)
        std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    return error < 0 && error > -4096 ? -error : error == 0 ? 0 : EBADMSG;
}

std::optional<std::uint32_t> generationOf(const nlmsghdr* message)
{
    std::optional<std::uint32_t> result;
    forEachAttribute(message, headerSize, [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_GEN_ID)
            result = numberOf(attribute);
    });
    return result;
}

ChainView readChain(const nlmsghdr* message, std::string_view& table)
{
    ChainView chain;
    bool hooked = false;
    std::optional<std::uint32_t> hook;
    std::optional<std::uint32_t> policy;
    forEachAttribute(message, headerSize, [&](const nlattr* attribute) {
        switch (mnl_attr_get_type(attribute)) {
        case NFTA_CHAIN_TABLE:
            table = textOf(attribute);
            break;
        case NFTA_CHAIN_NAME:
            chain.name = textOf(attribute);
            break;
        case NFTA_CHAIN_POLICY:
            policy = numberOf(attribute);
            break;
        case NFTA_CHAIN_HOOK: {
            hooked = true;
            forEachNested(attribute, [&](const nlattr* part) {
                if (mnl_attr_get_type(part) == NFTA_HOOK_HOOKNUM)
                    hook = numberOf(part);
            });
            break;
        }
        default:
            break;
        }
    });
    const std::array<std::pair<const char*, std::uint32_t>, 3> builtIn{
        {{"INPUT", NF_BR_LOCAL_IN}, {"FORWARD", NF_BR_FORWARD}, {"OUTPUT", NF_BR_LOCAL_OUT}}};
    chain.builtIn = hooked && std::ranges::any_of(builtIn, [&](const auto& known) {
                        return chain.name == known.first && hook == known.second;
                    });
    chain.foreign = hooked && !chain.builtIn;
    chain.policy = policy == std::uint32_t{NF_DROP} ? "DROP" : "ACCEPT";
    return chain;
}

} // namespace

Connection::Connection(SocketOpener opener)
    : m_opener(std::move(opener)),
      m_sequence(static_cast<std::uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count()))
{
}

Connection::~Connection() = default;

bool Connection::open(Result& result)
{
    int error = 0;
    if (!m_socket) {
        m_socket = m_opener(error);
        m_hadRight = false;
    }
    if (!m_socket) {
        result = failed(error);
        return false;
    }
    return true;
}

Result Connection::failed(int error) const
{
    Result result;
    result.answer = answerTo(error);
    result.reason = (error == notNow ? std::string("the tables have changed") : std::strerror(error)) +
                    advice(result.answer, error);
    return result;
}

// What is still on its way must not be taken for the answer to the next request.
Result Connection::brokenOff(int error)
{
    m_socket.reset();
    return failed(error);
}

// To be sent before the next one begins.
nlmsghdr* Connection::beginRequest(std::uint16_t type, std::uint16_t flags)
{
    nlmsghdr* request = mnl_nlmsg_put_header(m_request.data());
    request->nlmsg_type = static_cast<std::uint16_t>(tables | type);
    request->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    request->nlmsg_seq = ++m_sequence;
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, headerSize));
    header->nfgen_family = type == NFT_MSG_GETGEN ? NFPROTO_UNSPEC : NFPROTO_BRIDGE;
    return request;
}

Result Connection::list(std::uint16_t type, const std::function<void(nlmsghdr*)>& put, const Visit& visit,
                        bool& settled)
{
    nlmsghdr* request = beginRequest(type, NLM_F_DUMP);
    put(request);
    return ask(request, visit, settled);
}

// For one thing or, with NLM_F_DUMP, for a list.
Result Connection::ask(const nlmsghdr* request, const Visit& visit, bool& settled)
{
    Result result;
    if (!open(result))
        return result;
    const bool isDump = (request->nlmsg_flags & NLM_F_DUMP) != 0;
    const auto answerType = static_cast<std::uint16_t>(request->nlmsg_type - 1); // so they are numbered
    if (const int error = m_socket->send({m_request.data(), request->nlmsg_len}); error != 0)
        return failed(error);
    const Buffer buffer;
    for (;;) {
        const Socket::Received got = m_socket->receive(buffer.room(), true);
        if (got.error == EINTR)
            continue;
        if (got.error != 0)
            return brokenOff(got.error);
        Bytes left(buffer.room().first(got.size));
        while (const nlmsghdr* message = takeMessage(left)) {
            if (message->nlmsg_seq != m_sequence)
                continue;
            if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0)
                settled = false;
            if (message->nlmsg_type == NLMSG_DONE) {
                m_hadRight = true;
                if (const int error = errorAtTheEnd(message); error != 0)
                    return brokenOff(error);
                result.answer = Answer::Done;
                return result;
            }
            if (message->nlmsg_type == NLMSG_ERROR) {
                const std::optional<ErrorMessage> error = readError(message);
                return failed(error && error->error != 0 ? error->error : EBADMSG);
            }
            if (message->nlmsg_type < NLMSG_MIN_TYPE)
                continue;
            if (message->nlmsg_type != answerType || mnl_nlmsg_get_payload_len(message) < headerSize || !visit(message))
                return brokenOff(EBADMSG);
            if (!isDump) {
                result.answer = Answer::Done;
                return result;
            }
        }
    }
}

Result Connection::generation()
{
    std::optional<std::uint32_t> generation;
    bool settled = true;
    Result result = ask(
        beginRequest(NFT_MSG_GETGEN, 0),
        [&](const nlmsghdr* message) {
            generation = generationOf(message);
            return generation.has_value();
        },
        settled);
    result.generation = generation;
    return result;
}

Result Connection::readChains(std::vector<ChainView>& chains, std::uint64_t& table, std::string_view wanted)
{
    const auto all = [](nlmsghdr*) {};
    chains.clear();
    table = 0;
    bool settled = true;
    Result result = list(
        NFT_MSG_GETTABLE, all,
        [&](const nlmsghdr* message) {
            std::string_view name;
            std::uint64_t handle = 0;
            forEachAttribute(message, headerSize, [&](const nlattr* attribute) {
                if (mnl_attr_get_type(attribute) == NFTA_TABLE_NAME)
                    name = textOf(attribute);
                else if (mnl_attr_get_type(attribute) == NFTA_TABLE_HANDLE)
                    handle = longNumberOf(attribute).value_or(0);
            });
            if (name == wanted)
                table = handle;
            return !name.empty() && handle != 0;
        },
        settled);
    if (result.answer != Answer::Done || (table == 0 && wanted != filterTable))
        return result;
    return list(
        NFT_MSG_GETCHAIN, all,
        [&](const nlmsghdr* message) {
            std::string_view of;
            ChainView chain = readChain(message, of);
            const bool good = !of.empty() && !chain.name.empty();
            if (of == wanted && std::ranges::find(chains, chain.name, &ChainView::name) == chains.end())
                chains.push_back(std::move(chain));
            return good;
        },
        settled);
}

Connection::Visit Connection::visitRule(const std::function<void(const RuleView&)>& visit)
{
    return [&visit](const nlmsghdr* message) {
        const RuleView rule = nftables::readRule(message);
        const bool good = !rule.table.empty() && !rule.chain.empty() && rule.handle != 0;
        if (good && rule.table == filterTable)
            visit(rule);
        return good;
    };
}

Result Connection::readRules(const std::function<void(const RuleView&)>& visit, bool& settled)
{
    settled = true;
    return list(
        NFT_MSG_GETRULE, [](nlmsghdr* request) { putText(request, NFTA_RULE_TABLE, filterTable); }, visitRule(visit),
        settled);
}

Result Connection::readRule(const std::string& chain, std::uint64_t handle,
                            const std::function<void(const RuleView&)>& visit)
{
    nlmsghdr* request = beginRequest(NFT_MSG_GETRULE, 0);
    putText(request, NFTA_RULE_TABLE, filterTable);
    putText(request, NFTA_RULE_CHAIN, chain.c_str());
    put64(request, NFTA_RULE_HANDLE, handle);
    bool settled = true;
    return ask(request, visitRule(visit), settled);
}

Result Connection::apply(Batch& batch)
{
    Result result;
    if (!open(result))
        return result;
    if (batch.messages() == 0) {
        result.answer = Answer::Done;
        return result;
    }
    const std::uint32_t first = m_sequence + 1;
    m_sequence += batch.sequenceNumbers();
    const Bytes datagram = batch.finish(first);
    m_socket->makeRoom(datagram.size() + (64U << 10U),
                       std::min(mostRoom, (256U << 10U) + (batch.messages() * roomForError)));
    if (const int error = m_socket->send(datagram); error != 0)
        return failed(error);
    std::optional<int> batchError;
    std::vector<Refusal> errors;
    const bool whole = takeAnswers(first, batch, result, batchError, errors);
    if (!errors.empty() || batchError) {
        Result refused = classify(errors, batchError);
        refused.refusals = std::move(errors);
        return refused;
    }
    if (!whole) {
        result.answer = Answer::Unclear;
        result.reason = "the kernel's answer is missing";
        m_socket.reset();
        return result;
    }
    result.answer = Answer::Done;
    return result;
}

Result Connection::mayChange()
{
    Result result;
    if (!open(result))
        return result;
    Batch batch(generationThatNeverIs);
    const std::uint32_t first = m_sequence + 1;
    m_sequence += batch.sequenceNumbers();
    std::optional<int> batchError;
    std::vector<Refusal> errors;
    if (const int error = m_socket->send(batch.finish(first)); error != 0)
        batchError = error;
    else
        takeAnswers(first, batch, result, batchError, errors);
    if (batchError == notNow)
        result.answer = Answer::Done;
    else
        result = failed(batchError.value_or(EBADMSG));
    m_hadRight = m_hadRight || result.answer == Answer::Done;
    if (!m_hadRight)
        m_socket.reset(); // a socket has no more rights than who opened it had
    return result;
}

// Reads up to the last message's acknowledgement. False when that does not come.
bool Connection::takeAnswers(std::uint32_t first, const Batch& batch, Result& result, std::optional<int>& batchError,
                             std::vector<Refusal>& errors)
{
    const Buffer buffer;
    const std::uint32_t begin = first + Batch::ahead;
    const std::uint32_t last = begin + static_cast<std::uint32_t>(batch.messages()) - 1;
    for (;;) {
        const Socket::Received got = m_socket->receive(buffer.room(), true);
        if (got.error == EINTR)
            continue;
        if (got.error != 0)
            return false;
        Bytes left(buffer.room().first(got.size));
        while (const nlmsghdr* message = takeMessage(left)) {
            const std::uint32_t sequence = message->nlmsg_seq;
            if (sequence - first > last - first)
                continue;
            if (message->nlmsg_type == NLMSG_ERROR) {
                const std::optional<ErrorMessage> error = readError(message);
                if (!error)
                    return false;
                if (sequence - first < Batch::ahead) {
                    if (error->error != 0) {
                        batchError = error->error;
                        return true;
                    }
                    continue; // newer kernels acknowledge the beginning as well
                }
                if (error->error != 0)
                    errors.push_back({sequence - begin, error->error, error->text});
                if (sequence == last)
                    return true;
            } else if (message->nlmsg_type == (tables | NFT_MSG_NEWGEN)) {
                result.generation = generationOf(message);
            } else if (message->nlmsg_type == (tables | NFT_MSG_NEWRULE) && sequence - begin <= last - begin) {
                if (const std::uint64_t handle = nftables::readRule(message).handle; handle != 0)
                    result.newRules.push_back({sequence - begin, handle});
            }
        }
    }
}

// A batch with an error was undone as a whole.
Result Connection::classify(const std::vector<Refusal>& errors, std::optional<int> batchError)
{
    if (batchError) {
        Result result = failed(*batchError);
        if (result.answer == Answer::Unclear)
            result.answer = Answer::Shortage;
        return result;
    }
    Result result;
    result.answer = Answer::Refused;
    for (const Refusal& refusal : errors) {
        const Answer answer = answerTo(refusal.error);
        if (answer == Answer::Forbidden || answer == Answer::Shortage || answer == Answer::Changed)
            return failed(refusal.error);
    }
    result.reason = errors.front().text;
    return result;
}

} // namespace nftables
