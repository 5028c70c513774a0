#include "nftables/rule_message.hpp"

#include "nftables/attributes.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>

#include <algorithm>
#include <cstring>
#include <endian.h>
#include <iterator>
#include <net/ethernet.h>
#include <span>

namespace nftables
{

namespace
{

using Kind = ExpressionKind;

// A user chain's policy is known by this piece of the rule's user data: type, length, value.
constexpr std::array<std::uint8_t, 6> chainPolicyMark{1, 4, 1, 0, 0, 0};

// A mark follows this, in network order.
constexpr std::array<std::uint8_t, 2> markBegin{0xb7, sizeof(ebtables::Origin)};

// ---- writing

void putData(nlmsghdr* message, int type, const void* data, std::size_t size)
{
    const Nest nest(message, type);
    mnl_attr_put(message, NFTA_DATA_VALUE, size, data);
}

void putBody(nlmsghdr* message, const Expression& expression, const Expressions& rule)
{
    static constexpr std::array<std::uint8_t, 6> zeros{};
    switch (expression.kind) {
    case Kind::Meta:
        put32(message, NFTA_META_KEY, expression.key);
        put32(message, NFTA_META_DREG, NFT_REG_1);
        break;
    case Kind::Payload:
        put32(message, NFTA_PAYLOAD_DREG, NFT_REG_1);
        put32(message, NFTA_PAYLOAD_BASE, NFT_PAYLOAD_LL_HEADER);
        put32(message, NFTA_PAYLOAD_OFFSET, expression.offset);
        put32(message, NFTA_PAYLOAD_LEN, expression.length);
        break;
    case Kind::Bitwise:
        put32(message, NFTA_BITWISE_SREG, NFT_REG_1);
        put32(message, NFTA_BITWISE_DREG, NFT_REG_1);
        put32(message, NFTA_BITWISE_LEN, expression.size);
        putData(message, NFTA_BITWISE_MASK, expression.data.data(), expression.size);
        putData(message, NFTA_BITWISE_XOR, zeros.data(), std::min<std::size_t>(expression.size, zeros.size()));
        break;
    case Kind::Compare:
        put32(message, NFTA_CMP_SREG, NFT_REG_1);
        put32(message, NFTA_CMP_OP, expression.key);
        putData(message, NFTA_CMP_DATA, expression.data.data(), expression.size);
        break;
    case Kind::Match: // a target's attributes have the same numbers
    case Kind::Target:
        putText(message, NFTA_MATCH_NAME, expression.name.data());
        put32(message, NFTA_MATCH_REV, 0);
        mnl_attr_put(message, NFTA_MATCH_INFO, expression.size, expression.data.data());
        break;
    case Kind::Counter:
        put64(message, NFTA_COUNTER_BYTES, rule.counters.bytes);
        put64(message, NFTA_COUNTER_PACKETS, rule.counters.packets);
        break;
    case Kind::Verdict: {
        put32(message, NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
        const Nest data(message, NFTA_IMMEDIATE_DATA);
        const Nest verdict(message, NFTA_DATA_VERDICT);
        put32(message, NFTA_VERDICT_CODE, expression.key);
        if (!rule.chain.empty())
            putText(message, NFTA_VERDICT_CHAIN, rule.chain.c_str());
        break;
    }
    case Kind::Other:
        break;
    }
}

const char* nameOf(Kind kind)
{
    switch (kind) {
    case Kind::Meta:
        return "meta";
    case Kind::Payload:
        return "payload";
    case Kind::Bitwise:
        return "bitwise";
    case Kind::Compare:
        return "cmp";
    case Kind::Match:
        return "match";
    case Kind::Target:
        return "target";
    case Kind::Counter:
        return "counter";
    case Kind::Verdict:
        return "immediate";
    case Kind::Other:
        break;
    }
    return "";
}

// ---- reading

bool readData(const nlattr* nest, Expression& expression)
{
    if (nest == nullptr)
        return false;
    const nlattr* value = Attributes<NFTA_DATA_MAX + 1>(nest).find(NFTA_DATA_VALUE);
    if (value == nullptr || mnl_attr_get_payload_len(value) > 16) // a register holds no more
        return false;
    expression.size = static_cast<std::uint8_t>(mnl_attr_get_payload_len(value));
    std::memcpy(expression.data.data(), mnl_attr_get_payload(value), expression.size);
    return true;
}

bool readMeta(const nlattr* body, Expression& meta)
{
    const Attributes<NFTA_META_MAX + 1> in(body);
    meta.key = in.number(NFTA_META_KEY).value_or(0);
    return !in.differs(NFTA_META_DREG, NFT_REG_1) && in.find(NFTA_META_SREG) == nullptr;
}

bool readPayload(const nlattr* body, Expression& payload)
{
    const Attributes<NFTA_PAYLOAD_MAX + 1> in(body);
    payload.offset = in.number(NFTA_PAYLOAD_OFFSET).value_or(0);
    payload.length = in.number(NFTA_PAYLOAD_LEN).value_or(0);
    return !in.differs(NFTA_PAYLOAD_DREG, NFT_REG_1) && !in.differs(NFTA_PAYLOAD_BASE, NFT_PAYLOAD_LL_HEADER);
}

bool readBitwise(const nlattr* body, Expression& bitwise)
{
    const Attributes<NFTA_BITWISE_MAX + 1> in(body);
    Expression flipped;
    if (in.differs(NFTA_BITWISE_SREG, NFT_REG_1) || in.differs(NFTA_BITWISE_DREG, NFT_REG_1) ||
        in.number(NFTA_BITWISE_OP).value_or(NFT_BITWISE_BOOL) != NFT_BITWISE_BOOL ||
        !readData(in.find(NFTA_BITWISE_XOR), flipped) || !readData(in.find(NFTA_BITWISE_MASK), bitwise))
        return false;
    return flipped.data == Expression().data && !in.differs(NFTA_BITWISE_LEN, bitwise.size);
}

bool readCompare(const nlattr* body, Expression& compare)
{
    const Attributes<NFTA_CMP_MAX + 1> in(body);
    compare.key = in.number(NFTA_CMP_OP).value_or(~0U);
    return !in.differs(NFTA_CMP_SREG, NFT_REG_1) && readData(in.find(NFTA_CMP_DATA), compare);
}

bool readExtension(const nlattr* body, Expression& extension)
{
    const Attributes<NFTA_MATCH_MAX + 1> in(body);
    const nlattr* name = in.find(NFTA_MATCH_NAME);
    const nlattr* info = in.find(NFTA_MATCH_INFO);
    if (name == nullptr || textOf(name).size() >= extension.name.size() || info == nullptr ||
        mnl_attr_get_payload_len(info) > Expression::maxData || in.differs(NFTA_MATCH_REV, 0))
        return false;
    std::ranges::copy(textOf(name), extension.name.begin());
    extension.size = static_cast<std::uint8_t>(mnl_attr_get_payload_len(info));
    std::memcpy(extension.data.data(), mnl_attr_get_payload(info), extension.size);
    return true;
}

bool readVerdict(const nlattr* body, Expression& immediate, std::string& chain)
{
    const Attributes<NFTA_IMMEDIATE_MAX + 1> in(body);
    const nlattr* data = in.find(NFTA_IMMEDIATE_DATA);
    if (in.differs(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT) || data == nullptr)
        return false;
    const nlattr* verdict = Attributes<NFTA_DATA_MAX + 1>(data).find(NFTA_DATA_VERDICT);
    if (verdict == nullptr)
        return false;
    const Attributes<NFTA_VERDICT_MAX + 1> parts(verdict);
    const std::optional<std::uint32_t> code = parts.number(NFTA_VERDICT_CODE);
    if (!code)
        return false;
    immediate.key = *code;
    if (const nlattr* target = parts.find(NFTA_VERDICT_CHAIN))
        chain = textOf(target);
    return true;
}

bool readBody(std::string_view name, const nlattr* body, Expression& into, Expressions& rule)
{
    if (name == "counter") {
        into.kind = Kind::Counter;
        const Attributes<NFTA_COUNTER_MAX + 1> in(body);
        rule.counters.packets = in.longNumber(NFTA_COUNTER_PACKETS).value_or(0);
        rule.counters.bytes = in.longNumber(NFTA_COUNTER_BYTES).value_or(0);
        return true;
    }
    for (const Kind kind :
         {Kind::Meta, Kind::Payload, Kind::Bitwise, Kind::Compare, Kind::Match, Kind::Target, Kind::Verdict}) {
        if (name == nameOf(kind))
            into.kind = kind;
    }
    switch (into.kind) {
    case Kind::Meta:
        return readMeta(body, into);
    case Kind::Payload:
        return readPayload(body, into);
    case Kind::Bitwise:
        return readBitwise(body, into);
    case Kind::Compare:
        return readCompare(body, into);
    case Kind::Match:
    case Kind::Target:
        return readExtension(body, into);
    case Kind::Verdict:
        return readVerdict(body, into, rule.chain);
    default:
        return false;
    }
}

} // namespace

bool RuleView::readExpressions(Expressions& expressions) const
{
    expressions.list.clear();
    expressions.chain.clear();
    expressions.counters = {};
    const nlattr* list = Attributes<NFTA_RULE_MAX + 1>(message).find(NFTA_RULE_EXPRESSIONS);
    if (list == nullptr)
        return false;
    forEachNested(list, [&](const nlattr* element) {
        const Attributes<NFTA_EXPR_MAX + 1> in(element);
        const nlattr* name = in.find(NFTA_EXPR_NAME);
        const nlattr* body = in.find(NFTA_EXPR_DATA);
        Expression& expression = expressions.list.emplace_back();
        if (name == nullptr || body == nullptr || !readBody(textOf(name), body, expression, expressions))
            expression = Expression();
    });
    return true;
}

RuleView readRule(const nlmsghdr* message)
{
    RuleView view;
    view.message = message;
    const Attributes<NFTA_RULE_MAX + 1> in(message);
    if (const nlattr* table = in.find(NFTA_RULE_TABLE))
        view.table = textOf(table);
    if (const nlattr* chain = in.find(NFTA_RULE_CHAIN))
        view.chain = textOf(chain);
    view.handle = in.longNumber(NFTA_RULE_HANDLE).value_or(0);
    if (const nlattr* user = in.find(NFTA_RULE_USERDATA))
        view.isChainPolicy = mnl_attr_get_payload_len(user) == chainPolicyMark.size() &&
                             std::memcmp(mnl_attr_get_payload(user), chainPolicyMark.data(), 6) == 0;
    return view;
}

void putElements(nlmsghdr* message, const Expressions& expressions)
{
    for (const Expression& expression : expressions.list) {
        const Nest element(message, NFTA_LIST_ELEM);
        putText(message, NFTA_EXPR_NAME, nameOf(expression.kind));
        const Nest body(message, NFTA_EXPR_DATA);
        putBody(message, expression, expressions);
    }
}

void putExpressions(nlmsghdr* message, const Expressions& expressions)
{
    const Nest list(message, NFTA_RULE_EXPRESSIONS);
    putElements(message, expressions);
}

void putCompatibility(nlmsghdr* message, const std::optional<ebtables::EthertypeMatch>& ethertype)
{
    const Nest nest(message, NFTA_RULE_COMPAT);
    // The number has its bytes as in a frame, once more turned for the wire.
    put32(message, NFTA_RULE_COMPAT_PROTO, ethertype && !ethertype->lengthField ? htons(ethertype->number) : 0);
    put32(message, NFTA_RULE_COMPAT_FLAGS, ethertype && ethertype->negated ? NFT_RULE_COMPAT_F_INV : 0);
}

void putChainPolicyMark(nlmsghdr* message)
{
    mnl_attr_put(message, NFTA_RULE_USERDATA, chainPolicyMark.size(), chainPolicyMark.data());
}

void putMark(nlmsghdr* message, int type, ebtables::Origin mark)
{
    std::array<std::uint8_t, markBegin.size() + sizeof mark> data{};
    std::ranges::copy(markBegin, data.begin());
    mark = htobe64(mark);
    std::memcpy(data.data() + markBegin.size(), &mark, sizeof mark);
    mnl_attr_put(message, static_cast<std::uint16_t>(type), data.size(), data.data());
}

ebtables::Origin readMark(const nlattr* userData)
{
    ebtables::Origin mark = ebtables::noOrigin;
    const auto* const data = static_cast<const std::uint8_t*>(mnl_attr_get_payload(userData));
    if (mnl_attr_get_payload_len(userData) == markBegin.size() + sizeof mark &&
        std::ranges::equal(markBegin, std::span(data, markBegin.size())))
        std::memcpy(&mark, data + markBegin.size(), sizeof mark);
    return be64toh(mark);
}

ebtables::Origin readMark(const RuleView& rule)
{
    const nlattr* user = Attributes<NFTA_RULE_MAX + 1>(rule.message).find(NFTA_RULE_USERDATA);
    return user == nullptr ? ebtables::noOrigin : readMark(user);
}

} // namespace nftables
