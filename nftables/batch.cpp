#include "nftables/batch.hpp"

#include "nftables/attributes.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_bridge.h>

#include <cstring>
#include <utility>

namespace nftables
{

namespace
{

constexpr std::size_t headers = 96; // and the message that closes a batch
constexpr std::uint16_t tables = NFNL_SUBSYS_NFTABLES << 8U;
constexpr std::int32_t bridgePriority = -200; // that of the bridge filter's hooks

std::uint32_t hookOf(const std::string& chain)
{
    if (chain == "INPUT")
        return NF_BR_LOCAL_IN;
    return chain == "FORWARD" ? NF_BR_FORWARD : NF_BR_LOCAL_OUT;
}

void putBuiltIn(nlmsghdr* message, const std::string& table, const std::string& chain, const std::string& policy)
{
    putText(message, NFTA_CHAIN_TABLE, table.c_str());
    putText(message, NFTA_CHAIN_NAME, chain.c_str());
    nlattr* hook = mnl_attr_nest_start(message, NFTA_CHAIN_HOOK);
    put32(message, NFTA_HOOK_HOOKNUM, hookOf(chain));
    put32(message, NFTA_HOOK_PRIORITY, static_cast<std::uint32_t>(bridgePriority));
    mnl_attr_nest_end(message, hook);
    put32(message, NFTA_CHAIN_POLICY, policy == "DROP" ? NF_DROP : NF_ACCEPT);
}

} // namespace

Batch::Batch(std::optional<std::uint32_t> generation, std::string table, std::uint32_t flags)
    : m_table(std::move(table))
{
    nlmsghdr* message = beginControl(NFNL_MSG_BATCH_BEGIN, NLM_F_REQUEST);
    if (generation)
        put32(message, NFNL_BATCH_GENID, *generation);
    m_used += message->nlmsg_len;
    // The kernel tells the new generation when the message behind the beginning asks for an echo. This one has none of
    // its own when the table is there.
    message = begin(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_ECHO);
    putText(message, NFTA_TABLE_NAME, m_table.c_str());
    if (flags != 0)
        put32(message, NFTA_TABLE_FLAGS, flags);
    m_used += message->nlmsg_len;
}

nlmsghdr* Batch::beginControl(std::uint16_t type, std::uint16_t flags, std::size_t size)
{
    if (m_bytes.size() < m_used + size + headers)
        m_bytes.resize(2 * m_bytes.size() + size + headers);
    m_last = m_used;
    nlmsghdr* message = mnl_nlmsg_put_header(m_bytes.data() + m_used);
    message->nlmsg_type = type;
    message->nlmsg_flags = flags;
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->nfgen_family = AF_UNSPEC;
    header->version = NFNETLINK_V0;
    header->res_id = htons(NFNL_SUBSYS_NFTABLES);
    return message;
}

nlmsghdr* Batch::begin(std::uint16_t type, std::uint16_t flags, std::size_t size)
{
    nlmsghdr* message = beginControl(static_cast<std::uint16_t>(tables | type),
                                     static_cast<std::uint16_t>(NLM_F_REQUEST | flags), size);
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(message));
    header->nfgen_family = NFPROTO_BRIDGE;
    header->res_id = 0;
    return message;
}

std::size_t Batch::end(const nlmsghdr* message)
{
    m_used += message->nlmsg_len; // aligned: every attribute is padded
    return m_count++;
}

std::size_t Batch::addBuiltInChain(const std::string& chain, const std::string& policy)
{
    nlmsghdr* message = begin(NFT_MSG_NEWCHAIN, NLM_F_CREATE);
    putBuiltIn(message, m_table, chain, policy);
    putText(message, NFTA_CHAIN_TYPE, "filter");
    return end(message);
}

std::size_t Batch::setPolicy(const std::string& builtInChain, const std::string& policy)
{
    nlmsghdr* message = begin(NFT_MSG_NEWCHAIN, 0);
    putBuiltIn(message, m_table, builtInChain, policy);
    nlattr* counters = mnl_attr_nest_start(message, NFTA_CHAIN_COUNTERS);
    put64(message, NFTA_COUNTER_PACKETS, 0);
    put64(message, NFTA_COUNTER_BYTES, 0);
    mnl_attr_nest_end(message, counters);
    putText(message, NFTA_CHAIN_TYPE, "filter");
    return end(message);
}

std::size_t Batch::addChain(const std::string& chain)
{
    nlmsghdr* message = begin(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL);
    putText(message, NFTA_CHAIN_TABLE, m_table.c_str());
    putText(message, NFTA_CHAIN_NAME, chain.c_str());
    return end(message);
}

std::size_t Batch::deleteChain(const std::string& chain)
{
    nlmsghdr* message = begin(NFT_MSG_DELCHAIN, NLM_F_NONREC);
    putText(message, NFTA_CHAIN_TABLE, m_table.c_str());
    putText(message, NFTA_CHAIN_NAME, chain.c_str());
    return end(message);
}

std::size_t Batch::putRule(const std::string& chain, const Expressions& expressions,
                           const std::optional<ebtables::EthertypeMatch>& ethertype, Place place, bool isPolicy,
                           ebtables::Origin mark)
{
    const unsigned flags = NLM_F_CREATE | (place.where == Place::Where::InFront ? 0 : NLM_F_APPEND);
    nlmsghdr* message = begin(NFT_MSG_NEWRULE, static_cast<std::uint16_t>(flags));
    putText(message, NFTA_RULE_TABLE, m_table.c_str());
    putText(message, NFTA_RULE_CHAIN, chain.c_str());
    if (place.where == Place::Where::Behind)
        put64(message, NFTA_RULE_POSITION, place.handle);
    if (isPolicy)
        putChainPolicyMark(message);
    if (mark != ebtables::noOrigin)
        putMark(message, NFTA_RULE_USERDATA, mark);
    putExpressions(message, expressions);
    putCompatibility(message, ethertype);
    if (m_firstRule == 0)
        m_firstRule = m_last;
    m_lastRule = m_last;
    return end(message);
}

std::size_t Batch::addRule(const std::string& chain, const ebtables::Rule& rule, Place place, const Counters& counters,
                           ebtables::Origin mark)
{
    encode(rule, m_expressions);
    m_expressions.counters = counters;
    return putRule(chain, m_expressions, rule.ethertype, place, false, mark);
}

std::size_t Batch::addChainPolicy(const std::string& chain, const std::string& policy)
{
    ebtables::Rule rule;
    rule.target = policy;
    encode(rule, m_expressions);
    return putRule(chain, m_expressions, std::nullopt, {}, true);
}

std::size_t Batch::deleteRule(const std::string& chain, std::uint64_t handle)
{
    nlmsghdr* message = begin(NFT_MSG_DELRULE, 0);
    putText(message, NFTA_RULE_TABLE, m_table.c_str());
    putText(message, NFTA_RULE_CHAIN, chain.c_str());
    put64(message, NFTA_RULE_HANDLE, handle);
    return end(message);
}

std::size_t Batch::deleteRules(const std::string& chain)
{
    nlmsghdr* message = begin(NFT_MSG_DELRULE, 0);
    putText(message, NFTA_RULE_TABLE, m_table.c_str());
    putText(message, NFTA_RULE_CHAIN, chain.c_str());
    return end(message);
}

std::size_t Batch::deleteTable()
{
    nlmsghdr* message = begin(NFT_MSG_DELTABLE, 0);
    putText(message, NFTA_TABLE_NAME, m_table.c_str());
    return end(message);
}

Bytes Batch::finish(std::uint32_t first)
{
    auto* const last = reinterpret_cast<nlmsghdr*>(m_bytes.data() + m_last);
    last->nlmsg_flags = static_cast<std::uint16_t>(last->nlmsg_flags | NLM_F_ACK);
    nlmsghdr* finish = beginControl(NFNL_MSG_BATCH_END, NLM_F_REQUEST);
    m_used += finish->nlmsg_len;
    std::uint32_t sequence = first;
    for (std::size_t at = 0; at < m_used;) {
        auto* const message = reinterpret_cast<nlmsghdr*>(m_bytes.data() + at);
        if (at != 0 && (at == m_firstRule || at == m_lastRule))
            message->nlmsg_flags = static_cast<std::uint16_t>(message->nlmsg_flags | NLM_F_ECHO);
        message->nlmsg_seq = sequence++;
        at += message->nlmsg_len;
    }
    return {m_bytes.data(), m_used};
}

} // namespace nftables
