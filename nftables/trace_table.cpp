#include "nftables/trace_table.hpp"

#include "nftables/attributes.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_bridge.h>

#include <climits>
#include <optional>
#include <utility>

namespace nftables
{

namespace
{

constexpr std::size_t roomForChain = 400;
constexpr std::size_t roomForRule = 3000;
constexpr std::size_t headerSize = 4; // struct nfgenmsg
constexpr int beforeAllOthers = INT_MIN;

void addBaseChain(Batch& batch, const char* name, std::uint32_t hook)
{
    batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE, roomForChain, [&](nlmsghdr* message) {
        putText(message, NFTA_CHAIN_TABLE, batch.table().c_str());
        putText(message, NFTA_CHAIN_NAME, name);
        {
            const Nest nest(message, NFTA_CHAIN_HOOK);
            put32(message, NFTA_HOOK_HOOKNUM, hook);
            put32(message, NFTA_HOOK_PRIORITY, static_cast<std::uint32_t>(beforeAllOthers));
        }
        put32(message, NFTA_CHAIN_POLICY, NF_ACCEPT);
        putText(message, NFTA_CHAIN_TYPE, "filter");
    });
    ebtables::Rule rule;
    rule.target = selectingChain;
    batch.addRule(name, rule, {});
}

template <typename Put>
void putElement(nlmsghdr* message, const char* name, const Put& put)
{
    const Nest element(message, NFTA_LIST_ELEM);
    putText(message, NFTA_EXPR_NAME, name);
    const Nest body(message, NFTA_EXPR_DATA);
    put();
}

// `matches` end with a counter; what is over the limit goes no further than that.
void addSelectingRule(Batch& batch, const TraceSelection& selection)
{
    ebtables::Rule rule = selection.rule;
    rule.target = "CONTINUE";
    Expressions matches;
    encode(rule, matches);
    batch.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, roomForRule, [&](nlmsghdr* message) {
        putText(message, NFTA_RULE_TABLE, batch.table().c_str());
        putText(message, NFTA_RULE_CHAIN, selectingChain);
        {
            const Nest list(message, NFTA_RULE_EXPRESSIONS);
            putElements(message, matches);
            putElement(message, "limit", [&] {
                put64(message, NFTA_LIMIT_RATE, selection.limit);
                put64(message, NFTA_LIMIT_UNIT, 1); // second
                put32(message, NFTA_LIMIT_BURST, selection.limit);
                put32(message, NFTA_LIMIT_TYPE, NFT_LIMIT_PKTS);
                put32(message, NFTA_LIMIT_FLAGS, 0);
            });
            putElement(message, "immediate", [&] {
                put32(message, NFTA_IMMEDIATE_DREG, NFT_REG_1);
                const Nest data(message, NFTA_IMMEDIATE_DATA);
                const std::uint8_t on = 1;
                mnl_attr_put(message, NFTA_DATA_VALUE, sizeof on, &on);
            });
            putElement(message, "meta", [&] {
                put32(message, NFTA_META_KEY, NFT_META_NFTRACE);
                put32(message, NFTA_META_SREG, NFT_REG_1);
            });
            putElement(message, "counter", [&] {
                put64(message, NFTA_COUNTER_BYTES, 0);
                put64(message, NFTA_COUNTER_PACKETS, 0);
            });
        }
        putCompatibility(message, rule.ethertype);
    });
}

// Of the rule's counters, in their order.
std::vector<std::uint64_t> packetsOf(const nlmsghdr* rule)
{
    std::vector<std::uint64_t> packets;
    const auto takeCounter = [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_COUNTER_PACKETS)
            packets.push_back(longNumberOf(attribute).value_or(0));
    };
    const auto takeElement = [&](const nlattr* element) {
        bool isCounter = false;
        forEachNested(element, [&](const nlattr* part) {
            if (mnl_attr_get_type(part) == NFTA_EXPR_NAME)
                isCounter = textOf(part) == "counter";
            else if (mnl_attr_get_type(part) == NFTA_EXPR_DATA && isCounter)
                forEachNested(part, takeCounter);
        });
    };
    forEachAttribute(rule, headerSize, [&](const nlattr* attribute) {
        if (mnl_attr_get_type(attribute) == NFTA_RULE_EXPRESSIONS)
            forEachNested(attribute, takeElement);
    });
    return packets;
}

} // namespace

Result addTraceTable(Connection& connection, const std::string& table, const TraceSelection& selection, bool lasting)
{
    Batch batch(std::nullopt, table, lasting ? 0 : std::uint32_t{NFT_TABLE_F_OWNER});
    batch.addChain(selectingChain);
    addSelectingRule(batch, selection);
    if (selection.toDevice)
        addBaseChain(batch, "input", NF_BR_LOCAL_IN);
    if (selection.forwarded)
        addBaseChain(batch, "forward", NF_BR_FORWARD);
    return connection.apply(batch);
}

Result removeTable(Connection& connection, const std::string& table)
{
    Batch batch(std::nullopt, table);
    batch.deleteTable();
    return connection.apply(batch);
}

Result readTables(Connection& connection, std::vector<TableView>& tables)
{
    tables.clear();
    bool settled = true;
    return connection.list(
        NFT_MSG_GETTABLE, [](nlmsghdr*) {},
        [&](const nlmsghdr* message) {
            TableView table;
            forEachAttribute(message, headerSize, [&](const nlattr* attribute) {
                if (mnl_attr_get_type(attribute) == NFTA_TABLE_NAME)
                    table.name = textOf(attribute);
                else if (mnl_attr_get_type(attribute) == NFTA_TABLE_FLAGS)
                    table.isOwned = (numberOf(attribute).value_or(0) & NFT_TABLE_F_OWNER) != 0;
            });
            tables.push_back(std::move(table));
            return !tables.back().name.empty();
        },
        settled);
}

Result readTraceCounts(Connection& connection, const std::string& table, TraceCounts& counts)
{
    bool settled = true;
    return connection.list(
        NFT_MSG_GETRULE, [&](nlmsghdr* request) { putText(request, NFTA_RULE_TABLE, table.c_str()); },
        [&](const nlmsghdr* message) {
            const RuleView rule = readRule(message);
            const std::vector<std::uint64_t> packets = packetsOf(message);
            if (rule.table == table && rule.chain == selectingChain && packets.size() == 2)
                counts = {packets[0], packets[1]};
            return !rule.table.empty();
        },
        settled);
}

} // namespace nftables
