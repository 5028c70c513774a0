#include "tests/unit/fake_kernel.hpp"

#include "nftables/attributes.hpp"
#include "nftables/expressions.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_bridge.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace
{

constexpr std::uint16_t tablesType = NFNL_SUBSYS_NFTABLES << 8U;
constexpr int restart = 85;

struct Writer {
    std::vector<std::uint8_t> bytes = std::vector<std::uint8_t>(8192);
    nlmsghdr* header;

    Writer(std::uint16_t type, std::uint32_t sequence, std::uint16_t flags = 0)
        : header(mnl_nlmsg_put_header(bytes.data()))
    {
        header->nlmsg_type = type;
        header->nlmsg_seq = sequence;
        header->nlmsg_flags = flags;
        mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg));
    }
    std::vector<std::uint8_t> finish()
    {
        bytes.resize(header->nlmsg_len);
        return std::move(bytes);
    }
};

const nlattr* find(const nlmsghdr* message, int type)
{
    const nlattr* found = nullptr;
    nftables::forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == type)
            found = attribute;
    });
    return found;
}

std::string text(const nlmsghdr* message, int type)
{
    const nlattr* attribute = find(message, type);
    return attribute == nullptr ? "" : std::string(nftables::textOf(attribute));
}

std::vector<std::uint8_t> whole(const nlattr* attribute)
{
    if (attribute == nullptr)
        return {};
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(attribute);
    return {begin, begin + MNL_ALIGN(attribute->nla_len)};
}

void append(Writer& writer, const std::vector<std::uint8_t>& attribute)
{
    std::ranges::copy(attribute, static_cast<std::uint8_t*>(mnl_nlmsg_get_payload_tail(writer.header)));
    writer.header->nlmsg_len += static_cast<std::uint32_t>(attribute.size());
}

} // namespace

class FakeSocket : public nftables::Socket
{
public:
    explicit FakeSocket(FakeKernel& kernel) : m_kernel(kernel) { m_kernel.m_replies.clear(); }

    int send(nftables::Bytes datagram) override { return m_kernel.take(datagram); }

    Received receive(std::span<std::uint8_t> into, bool) override
    {
        if (m_kernel.m_receiveError != 0)
            return {0, std::exchange(m_kernel.m_receiveError, 0)};
        if (m_kernel.m_replies.empty())
            return {0, EAGAIN};
        const std::vector<std::uint8_t> next = m_kernel.m_replies.front();
        m_kernel.m_replies.pop_front();
        std::ranges::copy(next, into.begin());
        return {next.size(), 0};
    }

    void makeRoom(std::size_t, std::size_t) override {}

private:
    FakeKernel& m_kernel;
};

nftables::SocketOpener FakeKernel::opener()
{
    return [this](int&) { return std::make_unique<FakeSocket>(*this); };
}

FakeKernel::Chain* FakeKernel::State::find(const std::string& chain)
{
    const auto found = std::ranges::find(chains, chain, &std::pair<std::string, Chain>::first);
    return found == chains.end() ? nullptr : &found->second;
}

void FakeKernel::removeChain(const std::string& chain)
{
    std::erase_if(m_state.chains, [&](const auto& entry) { return entry.first == chain; });
    ++m_generation;
}

void FakeKernel::flush(const std::string& chain)
{
    m_state.find(chain)->rules.clear();
    ++m_generation;
}

int FakeKernel::take(nftables::Bytes datagram)
{
    const auto* const first = reinterpret_cast<const nlmsghdr*>(datagram.data());
    if (first->nlmsg_type != NFNL_MSG_BATCH_BEGIN) {
        dump(first);
        spoil(first);
        return 0;
    }
    if (m_fault && !m_fault->reading && m_fault->kind == Fault::Kind::SendError && m_fault->times > 0) {
        --m_fault->times;
        return m_fault->error;
    }
    batch(datagram);
    return 0;
}

void FakeKernel::acknowledge(std::uint32_t sequence, int error)
{
    std::vector<std::uint8_t> bytes(NLMSG_HDRLEN + sizeof(nlmsgerr));
    auto* const header = mnl_nlmsg_put_header(bytes.data());
    header->nlmsg_type = NLMSG_ERROR;
    header->nlmsg_flags = NLM_F_CAPPED;
    header->nlmsg_seq = sequence;
    header->nlmsg_len = static_cast<std::uint32_t>(bytes.size());
    static_cast<nlmsgerr*>(mnl_nlmsg_get_payload(header))->error = -error;
    reply(std::move(bytes));
}

void FakeKernel::batch(nftables::Bytes datagram)
{
    ++m_batches;
    m_lastMessages = 0;
    const auto* message = reinterpret_cast<const nlmsghdr*>(datagram.data());
    const std::uint32_t first = message->nlmsg_seq;
    nftables::Bytes rest = datagram;
    while (const nlmsghdr* next = nftables::takeMessage(rest))
        m_lastMessages += next->nlmsg_type > NFNL_MSG_BATCH_END && next->nlmsg_type != (tablesType | NFT_MSG_NEWTABLE);
    if (m_interferences > 0) {
        --m_interferences;
        ++m_generation;
    }
    const bool faulty = m_fault && !m_fault->reading && m_fault->times > 0;
    if (faulty)
        --m_fault->times;
    if (faulty && m_fault->kind == Fault::Kind::BatchError)
        return acknowledge(first, m_fault->error);
    const nlattr* named = find(message, NFNL_BATCH_GENID);
    if (named != nullptr && nftables::numberOf(named) != m_generation)
        return acknowledge(first, restart);
    State next = m_state;
    std::vector<std::vector<std::uint8_t>> echoes;
    std::vector<std::pair<std::uint32_t, int>> answers;
    bool good = true;
    bool tellsGeneration = false;
    int left = static_cast<int>(datagram.size()) - static_cast<int>(message->nlmsg_len);
    for (message = reinterpret_cast<const nlmsghdr*>(datagram.data() + message->nlmsg_len);
         message->nlmsg_type != NFNL_MSG_BATCH_END; message = mnl_nlmsg_next(message, &left)) {
        std::vector<std::uint8_t> echo;
        int error = apply(message, next, echo);
        const std::size_t index = message->nlmsg_seq - first - 1; // 0: the table
        if (faulty && m_fault->kind == Fault::Kind::Error && m_fault->message.value_or(index) == index)
            error = m_fault->error;
        good = good && error == 0;
        if (message->nlmsg_seq == first + 1)
            tellsGeneration = (message->nlmsg_flags & NLM_F_ECHO) != 0;
        if (error != 0 || (message->nlmsg_flags & NLM_F_ACK) != 0)
            answers.emplace_back(message->nlmsg_seq, error);
        if (!echo.empty())
            echoes.push_back(std::move(echo));
    }
    if (good) {
        m_state = std::move(next);
        ++m_generation;
        for (auto& echo : echoes)
            reply(std::move(echo));
        if (tellsGeneration) {
            Writer generation(tablesType | NFT_MSG_NEWGEN, first + 1);
            nftables::put32(generation.header, NFTA_GEN_ID, m_generation);
            reply(generation.finish());
        }
    }
    for (const auto& [sequence, error] : answers)
        acknowledge(sequence, error);
    if (faulty)
        spoilReplies();
}

void FakeKernel::spoil(const void* request)
{
    if (!m_fault || !m_fault->reading || m_fault->times == 0)
        return;
    if (m_fault->message.value_or(0) > 0) {
        --*m_fault->message;
        return;
    }
    --m_fault->times;
    if (m_fault->kind == Fault::Kind::Error) {
        m_replies.clear();
        acknowledge(static_cast<const nlmsghdr*>(request)->nlmsg_seq, m_fault->error);
    }
    spoilReplies();
}

void FakeKernel::spoilReplies()
{
    switch (m_fault->kind) {
    case Fault::Kind::NoAnswer:
        m_replies.clear();
        break;
    case Fault::Kind::Overrun:
        m_replies.clear();
        m_receiveError = ENOBUFS;
        break;
    case Fault::Kind::Cut:
        for (auto& answer : m_replies)
            answer.resize(answer.size() / 2);
        break;
    case Fault::Kind::Lie:
        for (auto& answer : m_replies) {
            for (std::size_t i = sizeof(nlmsghdr); i < answer.size(); ++i)
                answer[i] = static_cast<std::uint8_t>(answer[i] * 31 + 7);
        }
        break;
    case Fault::Kind::Omission:
        while (m_replies.size() > 1)
            m_replies.pop_front();
        break;
    default:
        break;
    }
}

int FakeKernel::apply(const void* bytes, State& state, std::vector<std::uint8_t>& echo)
{
    const auto* const message = static_cast<const nlmsghdr*>(bytes);
    const int type = message->nlmsg_type & 0xff;
    if (type == NFT_MSG_NEWTABLE) {
        if (state.table == 0)
            state.table = ++m_lastTable;
        return 0;
    }
    if (state.table == 0)
        return ENOENT;
    if (type == NFT_MSG_NEWSET || type == NFT_MSG_NEWSETELEM)
        return EOPNOTSUPP;
    if (type == NFT_MSG_NEWCHAIN || type == NFT_MSG_DELCHAIN) {
        const std::string name = text(message, NFTA_CHAIN_NAME);
        Chain* chain = state.find(name);
        if (type == NFT_MSG_DELCHAIN) {
            if (chain == nullptr || !chain->rules.empty())
                return chain == nullptr ? ENOENT : EBUSY;
            std::erase_if(state.chains, [&](const auto& entry) { return entry.first == name; });
            return 0;
        }
        if (chain != nullptr && (message->nlmsg_flags & NLM_F_EXCL) != 0)
            return EEXIST;
        if (chain == nullptr)
            chain = &state.chains.emplace_back(name, Chain()).second;
        if (const nlattr* hook = find(message, NFTA_CHAIN_HOOK)) {
            chain->builtIn = true;
            nftables::forEachNested(hook, [&](const nlattr* part) {
                if (mnl_attr_get_type(part) == NFTA_HOOK_HOOKNUM)
                    chain->hook = nftables::numberOf(part).value();
            });
            chain->policy = nftables::numberOf(find(message, NFTA_CHAIN_POLICY)).value();
        }
        return 0;
    }
    Chain* chain = state.find(text(message, NFTA_RULE_CHAIN));
    if (chain == nullptr)
        return ENOENT;
    const auto at = [&](int attribute) {
        const auto handle = nftables::longNumberOf(find(message, attribute));
        return std::ranges::find_if(chain->rules, [&](const Rule& rule) { return rule.handle == handle; });
    };
    if (type == NFT_MSG_DELRULE) {
        if (find(message, NFTA_RULE_HANDLE) == nullptr) {
            chain->rules.clear();
            return 0;
        }
        const auto found = at(NFTA_RULE_HANDLE);
        if (found == chain->rules.end())
            return ENOENT;
        chain->rules.erase(found);
        return 0;
    }
    const Rule rule{++m_lastHandle, whole(find(message, NFTA_RULE_EXPRESSIONS)),
                    whole(find(message, NFTA_RULE_USERDATA))};
    if (find(message, NFTA_RULE_POSITION) != nullptr) {
        const auto found = at(NFTA_RULE_POSITION);
        if (found == chain->rules.end())
            return ENOENT;
        chain->rules.insert((message->nlmsg_flags & NLM_F_APPEND) != 0 ? found + 1 : found, rule);
    } else {
        chain->rules.insert((message->nlmsg_flags & NLM_F_APPEND) != 0 ? chain->rules.end() : chain->rules.begin(),
                            rule);
    }
    if ((message->nlmsg_flags & NLM_F_ECHO) != 0) {
        Writer writer(tablesType | NFT_MSG_NEWRULE, message->nlmsg_seq);
        nftables::put64(writer.header, NFTA_RULE_HANDLE, rule.handle);
        echo = writer.finish();
    }
    return 0;
}

void FakeKernel::dump(const void* bytes)
{
    const auto* const request = static_cast<const nlmsghdr*>(bytes);
    const std::uint32_t sequence = request->nlmsg_seq;
    const bool isDump = (request->nlmsg_flags & NLM_F_DUMP) != 0;
    switch (request->nlmsg_type & 0xff) {
    case NFT_MSG_GETGEN: {
        Writer writer(tablesType | NFT_MSG_NEWGEN, sequence);
        nftables::put32(writer.header, NFTA_GEN_ID, m_generation);
        return reply(writer.finish());
    }
    case NFT_MSG_GETTABLE:
        if (m_state.table != 0) {
            Writer writer(tablesType | NFT_MSG_NEWTABLE, sequence, NLM_F_MULTI);
            nftables::putText(writer.header, NFTA_TABLE_NAME, "filter");
            nftables::put64(writer.header, NFTA_TABLE_HANDLE, m_state.table);
            reply(writer.finish());
        }
        break;
    case NFT_MSG_GETCHAIN:
        for (const auto& [name, chain] : m_state.chains) {
            Writer writer(tablesType | NFT_MSG_NEWCHAIN, sequence, NLM_F_MULTI);
            nftables::putText(writer.header, NFTA_CHAIN_TABLE, "filter");
            nftables::putText(writer.header, NFTA_CHAIN_NAME, name.c_str());
            if (chain.builtIn) {
                nlattr* hook = mnl_attr_nest_start(writer.header, NFTA_CHAIN_HOOK);
                nftables::put32(writer.header, NFTA_HOOK_HOOKNUM, chain.hook);
                mnl_attr_nest_end(writer.header, hook);
                nftables::put32(writer.header, NFTA_CHAIN_POLICY, chain.policy);
            }
            reply(writer.finish());
        }
        break;
    case NFT_MSG_GETRULE:
        for (const auto& [name, chain] : m_state.chains) {
            for (const Rule& rule : chain.rules) {
                if (!isDump && nftables::longNumberOf(find(request, NFTA_RULE_HANDLE)) != rule.handle)
                    continue;
                Writer writer(tablesType | NFT_MSG_NEWRULE, sequence, NLM_F_MULTI);
                nftables::putText(writer.header, NFTA_RULE_TABLE, "filter");
                nftables::putText(writer.header, NFTA_RULE_CHAIN, name.c_str());
                nftables::put64(writer.header, NFTA_RULE_HANDLE, rule.handle);
                append(writer, rule.expressions);
                append(writer, rule.userData);
                reply(writer.finish());
            }
        }
        break;
    default:
        break;
    }
    if (!isDump)
        return;
    Writer done(NLMSG_DONE, sequence, NLM_F_MULTI);
    reply(done.finish());
}

std::map<std::string, std::vector<std::string>> FakeKernel::tables() const
{
    std::map<std::string, std::vector<std::string>> result;
    for (const auto& [name, chain] : m_state.chains) {
        std::vector<std::string>& lines = result[name];
        lines.push_back(!chain.builtIn ? "RETURN" : chain.policy == NF_DROP ? "DROP" : "ACCEPT");
        for (const Rule& rule : chain.rules) {
            Writer writer(tablesType | NFT_MSG_NEWRULE, 0);
            append(writer, rule.expressions);
            append(writer, rule.userData);
            const nftables::RuleView view = nftables::readRule(writer.header);
            nftables::Expressions expressions;
            view.readExpressions(expressions);
            const auto decoded = nftables::decode(expressions);
            if (view.isChainPolicy && decoded)
                lines.front() = decoded->target;
            else
                lines.push_back(decoded ? toText(*decoded) : "unreadable");
        }
    }
    return result;
}
