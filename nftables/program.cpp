#include "nftables/program.hpp"

#include "nftables/attributes.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <string>

namespace nftables
{

namespace
{

using compiled::Condition;
using compiled::Element;
using compiled::Header;
using compiled::MaskedField;
using compiled::Step;
using compiled::Verdict;

constexpr std::size_t wordSize = 4;
constexpr std::uint32_t firstRegister = NFT_REG32_00;
constexpr std::size_t elementsEach = 100; // of a message
constexpr std::size_t longestElement = 512;
constexpr std::size_t longestStep = 16384;

constexpr std::size_t words(std::size_t bytes)
{
    return (bytes + wordSize - 1) / wordSize;
}

void putBytes(nlmsghdr* message, int type, std::span<const std::uint8_t> bytes)
{
    const Nest nest(message, type);
    mnl_attr_put(message, NFTA_DATA_VALUE, bytes.size(), bytes.data());
}

void putVerdict(nlmsghdr* message, int type, int code, const std::string& chain)
{
    const Nest data(message, type);
    const Nest verdict(message, NFTA_DATA_VERDICT);
    put32(message, NFTA_VERDICT_CODE, static_cast<std::uint32_t>(code));
    if (!chain.empty())
        putText(message, NFTA_VERDICT_CHAIN, chain.c_str());
}

int codeOf(Verdict::Kind kind)
{
    switch (kind) {
    case Verdict::Kind::Accept:
        return NF_ACCEPT;
    case Verdict::Kind::Drop:
        return NF_DROP;
    case Verdict::Kind::Return:
        return NFT_RETURN;
    case Verdict::Kind::Goto:
        break;
    }
    return NFT_GOTO;
}

// Each part of a key begins a word of its own.
compiled::Bytes padded(const compiled::Bytes& key, const std::vector<std::uint8_t>& sizes)
{
    compiled::Bytes result;
    auto at = key.begin();
    for (const std::uint8_t size : sizes) {
        result.insert(result.end(), at, at + size);
        result.resize(words(result.size()) * wordSize);
        at += size;
    }
    return result;
}

// ---- which of two places comes first
//
// The kernel compares a register with a value, but not with another register. So places are two digits, and sets know
// which pairs of digits are which: (high, high) -> whether that decides or the low ones are to be asked; (that answer,
// low, low). Each of the sets is the same for all programs.

constexpr const char* highDigits = "before/high";
constexpr const char* lowDigits = "before/low";
constexpr std::uint8_t decided = 0;
constexpr std::uint8_t askLow = 1;
constexpr std::uint8_t lastDigit = 0xff;
constexpr std::uint32_t foundPlace = firstRegister + 14; // and the next one: behind the longest key of a race

// A word for each digit.
compiled::Bytes digitsOf(compiled::Place place)
{
    return {static_cast<std::uint8_t>(place >> 8U), 0, 0, 0, static_cast<std::uint8_t>(place), 0, 0, 0};
}

// Values that a field may have, as a set that is named for them.
std::string nameOf(const Condition& oneOf)
{
    std::string name = "one-of/" + std::to_string(oneOf.of.field.size) + "/";
    for (const std::uint8_t byte : oneOf.value) {
        name += "0123456789abcdef"[byte >> 4U];
        name += "0123456789abcdef"[byte & 15U];
    }
    return name;
}

class Writer
{
public:
    Writer(Batch& batch, const compiled::Program& program) : m_batch(batch), m_program(program) {}

    void write()
    {
        for (const compiled::Chain& chain : m_program.chains) {
            if (chain.hook == compiled::Hook::None)
                m_batch.addChain(chain.name);
            else
                m_batch.addBuiltInChain(chain.name, chain.dropsByPolicy ? "DROP" : "ACCEPT");
        }
        for (const compiled::Chain& chain : m_program.chains) {
            for (const Step& step : chain.steps)
                addSets(step);
        }
        if (std::ranges::any_of(m_program.chains, hasComparison))
            addComparison();
        for (const compiled::Map& map : m_program.maps) {
            addMap(map);
            addElements(map);
        }
        for (const compiled::Chain& chain : m_program.chains) {
            for (const Step& step : chain.steps)
                addStep(chain.name, step);
        }
    }

private:
    const char* table() const { return m_batch.table().c_str(); }

    // ---- sets

    void addSets(const Step& step)
    {
        for (const Condition& condition : step.conditions) {
            if (condition.kind != Condition::Kind::OneOf || !m_sets.insert(nameOf(condition)).second)
                continue;
            const std::vector<std::uint8_t> sizes{condition.of.field.size};
            addSet(nameOf(condition), sizes, 0, [](nlmsghdr*) {});
            m_batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE, longestElement * condition.value.size(),
                        [&](nlmsghdr* message) {
                            putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                            putText(message, NFTA_SET_ELEM_LIST_SET, nameOf(condition).c_str());
                            const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
                            for (auto at = condition.value.begin(); at != condition.value.end(); at += sizes[0]) {
                                const Nest element(message, NFTA_LIST_ELEM);
                                putBytes(message, NFTA_SET_ELEM_KEY, padded({at, at + sizes[0]}, sizes));
                            }
                        });
        }
    }

    static bool hasComparison(const compiled::Chain& chain)
    {
        return std::ranges::any_of(chain.steps, [](const Step& step) {
            const auto* lead = std::get_if<compiled::Lead>(&step.action);
            return lead != nullptr && lead->than;
        });
    }

    void addComparison()
    {
        addSet(highDigits, {1, 1}, NFT_SET_MAP | NFT_SET_INTERVAL | NFT_SET_CONCAT, [](nlmsghdr* message) {
            put32(message, NFTA_SET_DATA_TYPE, 0);
            put32(message, NFTA_SET_DATA_LEN, wordSize);
        });
        addDigits(highDigits, [](nlmsghdr* message, std::uint8_t digit) {
            putDigits(message, {digit, digit}, {digit, digit}, askLow);
            if (digit != lastDigit)
                putDigits(message, {digit, static_cast<std::uint8_t>(digit + 1)}, {digit, lastDigit}, decided);
        });
        addSet(lowDigits, {1, 1, 1}, NFT_SET_INTERVAL | NFT_SET_CONCAT, [](nlmsghdr*) {});
        addDigits(lowDigits, [](nlmsghdr* message, std::uint8_t digit) {
            if (digit == lastDigit)
                putDigits(message, {decided, 0, 0}, {decided, lastDigit, lastDigit});
            else // the low digit of the one ahead comes first here
                putDigits(message, {askLow, static_cast<std::uint8_t>(digit + 1), digit}, {askLow, lastDigit, digit});
        });
    }

    void addDigits(const char* set, const auto& put)
    {
        m_batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, longestElement * 2 * (lastDigit + 1U),
                    [&](nlmsghdr* message) {
                        putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                        putText(message, NFTA_SET_ELEM_LIST_SET, set);
                        const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
                        for (unsigned digit = 0; digit <= lastDigit; ++digit)
                            put(message, static_cast<std::uint8_t>(digit));
                    });
    }

    static void putDigits(nlmsghdr* message, const compiled::Bytes& first, const compiled::Bytes& last,
                          std::optional<std::uint8_t> answer = std::nullopt)
    {
        const std::vector<std::uint8_t> sizes(first.size(), 1);
        const Nest nest(message, NFTA_LIST_ELEM);
        putBytes(message, NFTA_SET_ELEM_KEY, padded(first, sizes));
        putBytes(message, NFTA_SET_ELEM_KEY_END, padded(last, sizes));
        if (answer)
            putBytes(message, NFTA_SET_ELEM_DATA, compiled::Bytes{*answer, 0, 0, 0});
    }

    void addSet(const std::string& name, const std::vector<std::uint8_t>& sizes, std::uint32_t flags, const auto& more)
    {
        std::size_t length = 0;
        for (const std::uint8_t size : sizes)
            length += words(size) * wordSize;
        m_batch.add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL, longestElement * 4, [&](nlmsghdr* message) {
            putText(message, NFTA_SET_TABLE, table());
            putText(message, NFTA_SET_NAME, name.c_str());
            put32(message, NFTA_SET_ID, ++m_setId);
            put32(message, NFTA_SET_FLAGS, flags);
            put32(message, NFTA_SET_KEY_TYPE, 0); // for programs that print it
            put32(message, NFTA_SET_KEY_LEN, static_cast<std::uint32_t>(length));
            if ((flags & NFT_SET_CONCAT) != 0) {
                const Nest description(message, NFTA_SET_DESC);
                const Nest parts(message, NFTA_SET_DESC_CONCAT);
                for (const std::uint8_t size : sizes) {
                    const Nest part(message, NFTA_LIST_ELEM);
                    put32(message, NFTA_SET_FIELD_LEN, size);
                }
            }
            more(message);
        });
    }

    void addMap(const compiled::Map& map)
    {
        const std::uint32_t intervals = map.intervals ? NFT_SET_INTERVAL | NFT_SET_CONCAT : 0;
        addSet(map.name, map.sizes, NFT_SET_MAP | intervals, [&](nlmsghdr* message) {
            put32(message, NFTA_SET_DATA_TYPE, map.places ? 0U : std::uint32_t{NFT_DATA_VERDICT});
            if (map.places)
                put32(message, NFTA_SET_DATA_LEN, static_cast<std::uint32_t>(digitsOf(0).size()));
            if (!map.counts)
                return;
            const Nest counter(message, NFTA_SET_EXPR);
            putText(message, NFTA_EXPR_NAME, "counter");
            const Nest body(message, NFTA_EXPR_DATA);
        });
    }

    void addElements(const compiled::Map& map)
    {
        std::span<const Element> rest = map.elements;
        while (!rest.empty()) {
            const std::span<const Element> some = rest.first(std::min(rest.size(), elementsEach));
            rest = rest.subspan(some.size());
            m_batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, longestElement * (some.size() + 1),
                        [&](nlmsghdr* message) {
                            putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                            putText(message, NFTA_SET_ELEM_LIST_SET, map.name.c_str());
                            const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
                            for (const Element& element : some)
                                putElement(message, map, element);
                        });
        }
    }

    static void putElement(nlmsghdr* message, const compiled::Map& map, const Element& element)
    {
        const Nest nest(message, NFTA_LIST_ELEM);
        putBytes(message, NFTA_SET_ELEM_KEY, padded(element.first, map.sizes));
        if (map.intervals)
            putBytes(message, NFTA_SET_ELEM_KEY_END, padded(element.last, map.sizes));
        if (map.places)
            putBytes(message, NFTA_SET_ELEM_DATA, digitsOf(element.place));
        else
            putVerdict(message, NFTA_SET_ELEM_DATA, codeOf(element.verdict.kind), element.verdict.chain);
        if (element.origin != ebtables::noOrigin)
            mnl_attr_put(message, NFTA_SET_ELEM_USERDATA, sizeof element.origin, &element.origin);
    }

    // ---- steps

    void addStep(const std::string& chain, const Step& step)
    {
        if (const auto* plain = std::get_if<compiled::PlainRule>(&step.action)) {
            m_batch.addRule(chain, plain->rule, {});
            return;
        }
        m_batch.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, longestStep, [&](nlmsghdr* message) {
            putText(message, NFTA_RULE_TABLE, table());
            putText(message, NFTA_RULE_CHAIN, chain.c_str());
            const Nest list(message, NFTA_RULE_EXPRESSIONS);
            for (const Condition& condition : step.conditions)
                putCondition(message, condition);
            if (const auto* jump = std::get_if<compiled::Jump>(&step.action))
                putJump(message, jump->comesBack ? NFT_JUMP : NFT_GOTO, jump->chain);
            else if (const auto* lead = std::get_if<compiled::Lead>(&step.action))
                putLead(message, *lead);
            else
                putLookUp(message, std::get<compiled::LookUp>(step.action), NFT_REG_VERDICT);
        });
    }

    static void putJump(nlmsghdr* message, int code, const std::string& chain)
    {
        putExpression(message, "immediate", [&] {
            put32(message, NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
            putVerdict(message, NFTA_IMMEDIATE_DATA, code, chain);
        });
    }

    void putLead(nlmsghdr* message, const compiled::Lead& lead) const
    {
        putLookUp(message, lead.place, foundPlace);
        if (lead.than) {
            // In the end the digits lie as the sets' keys have them, from the first register on.
            putLookUp(message, *lead.than, firstRegister + 1);
            putMove(message, foundPlace, firstRegister);
            putAsk(message, highDigits, firstRegister, firstRegister + 1);
            putMove(message, foundPlace + 1, firstRegister + 3);
            putAsk(message, lowDigits, firstRegister + 1, std::nullopt);
        }
        putJump(message, NFT_GOTO, lead.chain);
    }

    static void putMove(nlmsghdr* message, std::uint32_t from, std::uint32_t to)
    {
        putMask(message, from, to, compiled::Bytes(wordSize, 0xff));
    }

    static void putAsk(nlmsghdr* message, const std::string& set, std::uint32_t key, std::optional<std::uint32_t> to)
    {
        putExpression(message, "lookup", [&] {
            putText(message, NFTA_LOOKUP_SET, set.c_str());
            put32(message, NFTA_LOOKUP_SREG, key);
            if (to)
                put32(message, NFTA_LOOKUP_DREG, *to);
        });
    }

    static void putExpression(nlmsghdr* message, const char* name, const auto& putBody)
    {
        const Nest element(message, NFTA_LIST_ELEM);
        putText(message, NFTA_EXPR_NAME, name);
        const Nest body(message, NFTA_EXPR_DATA);
        putBody();
    }

    static void putLoad(nlmsghdr* message, const MaskedField& of, std::uint32_t to)
    {
        const compiled::Field& field = of.field;
        if (field.header == Header::InPort || field.header == Header::OutPort) {
            putExpression(message, "meta", [&] {
                put32(message, NFTA_META_KEY, field.header == Header::InPort ? NFT_META_IIFNAME : NFT_META_OIFNAME);
                put32(message, NFTA_META_DREG, to);
            });
        } else {
            putExpression(message, "payload", [&] {
                put32(message, NFTA_PAYLOAD_DREG, to);
                put32(message, NFTA_PAYLOAD_BASE,
                      field.header == Header::Link ? NFT_PAYLOAD_LL_HEADER : NFT_PAYLOAD_NETWORK_HEADER);
                put32(message, NFTA_PAYLOAD_OFFSET, field.offset);
                put32(message, NFTA_PAYLOAD_LEN, field.size);
            });
        }
        if (std::ranges::all_of(of.mask, [](std::uint8_t byte) { return byte == 0xff; }))
            return;
        putMask(message, to, to, of.mask);
    }

    static void putMask(nlmsghdr* message, std::uint32_t from, std::uint32_t to, const compiled::Bytes& mask)
    {
        putExpression(message, "bitwise", [&] {
            put32(message, NFTA_BITWISE_SREG, from);
            put32(message, NFTA_BITWISE_DREG, to);
            put32(message, NFTA_BITWISE_LEN, static_cast<std::uint32_t>(mask.size()));
            putBytes(message, NFTA_BITWISE_MASK, mask);
            putBytes(message, NFTA_BITWISE_XOR, compiled::Bytes(mask.size()));
        });
    }

    static void putCondition(nlmsghdr* message, const Condition& condition)
    {
        putLoad(message, condition.of, firstRegister);
        switch (condition.kind) {
        case Condition::Kind::Present:
            return;
        case Condition::Kind::Equal:
        case Condition::Kind::Differs:
            putExpression(message, "cmp", [&] {
                put32(message, NFTA_CMP_SREG, firstRegister);
                put32(message, NFTA_CMP_OP, condition.kind == Condition::Kind::Equal ? NFT_CMP_EQ : NFT_CMP_NEQ);
                putBytes(message, NFTA_CMP_DATA, condition.value);
            });
            return;
        case Condition::Kind::OneOf:
            break;
        }
        putAsk(message, nameOf(condition), firstRegister, std::nullopt);
    }

    void putLookUp(nlmsghdr* message, const compiled::LookUp& lookUp, std::uint32_t to) const
    {
        std::uint32_t next = firstRegister;
        for (const MaskedField& part : lookUp.key) {
            putLoad(message, part, next);
            next += static_cast<std::uint32_t>(words(part.field.size));
        }
        putAsk(message, m_program.maps[lookUp.map].name, firstRegister, to);
    }

    Batch& m_batch;
    const compiled::Program& m_program;
    std::set<std::string> m_sets; // those for conditions that are there
    std::uint32_t m_setId = 0;
};

} // namespace

void addProgram(Batch& batch, const compiled::Program& program)
{
    Writer(batch, program).write();
}

} // namespace nftables
