#include "nftables/program.hpp"

#include "compiled/numbers.hpp"
#include "nftables/attributes.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <utility>

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
constexpr std::uint32_t answerSize = 8; // of a map that gives places or numbers

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

// A word for each digit.
compiled::Bytes digitsOf(compiled::Place place)
{
    return {static_cast<std::uint8_t>(place >> 8U), 0, 0, 0, static_cast<std::uint8_t>(place), 0, 0, 0};
}

class Writer
{
public:
    Writer(Batch& batch, const compiled::Program& from, const compiled::Program& to, CountersByMark counted)
        : m_batch(batch), m_from(from), m_to(to), m_counted(std::move(counted))
    {
    }

    std::vector<ebtables::Origin> write(const compiled::Difference& difference)
    {
        m_setsChange = changesSets(difference);
        takeOut(difference);
        for (const std::size_t added : difference.newChains) {
            const compiled::Chain& chain = m_to.chains[added];
            if (chain.hook != compiled::Hook::None)
                m_batch.addBuiltInChain(chain.name, "ACCEPT");
            m_batch.addChain(chainOfSteps(chain));
        }
        if (m_setsChange) {
            addOneOfs();
            if (hasComparison(m_to) && !hasComparison(m_from))
                addComparison();
        }
        for (const std::size_t added : difference.newMaps)
            addMap(m_to.maps[added]);
        for (const std::size_t added : difference.newMaps)
            addElements(m_to.maps[added], all(m_to.maps[added].elements.size()));
        for (const compiled::Difference::Elements& changes : difference.elements)
            addElements(m_to.maps[changes.to], changes.added);
        for (const std::size_t added : difference.newChains)
            addSteps(m_to.chains[added]);
        for (const auto& [before, after] : difference.refilled)
            addSteps(m_to.chains[after]);
        for (const std::size_t gone : difference.goneChains) {
            const compiled::Chain& chain = m_from.chains[gone];
            m_batch.deleteChain(chainOfSteps(chain));
            if (chain.hook != compiled::Hook::None)
                m_batch.deleteChain(chain.name);
        }
        m_marks.resize(m_batch.messages() - m_first);
        return std::move(m_marks);
    }

private:
    const char* table() const { return m_batch.table().c_str(); }

    // The last message is about the rule with this mark.
    void note(ebtables::Origin mark)
    {
        m_marks.resize(m_batch.messages() - m_first);
        m_marks.back() = mark;
    }

    Counters takeCounted(ebtables::Origin mark)
    {
        const auto found = m_counted.find(mark);
        return found == m_counted.end() ? Counters() : std::exchange(found->second, {});
    }

    static std::vector<std::size_t> all(std::size_t count)
    {
        std::vector<std::size_t> places(count);
        std::iota(places.begin(), places.end(), std::size_t{0});
        return places;
    }

    // ---- what goes

    // Rules hold maps and chains; elements hold chains.
    void takeOut(const compiled::Difference& difference)
    {
        for (const auto& [before, after] : difference.refilled)
            deleteRules(m_from.chains[before]);
        for (const std::size_t gone : difference.goneChains)
            deleteRules(m_from.chains[gone]);
        for (const compiled::Difference::Elements& changes : difference.elements)
            deleteElements(m_from.maps[changes.from], changes.gone);
        for (const std::size_t gone : difference.goneMaps) {
            const std::string name = nameOf(m_from.maps[gone]);
            m_batch.add(NFT_MSG_DELSETELEM, 0, longestElement, [&](nlmsghdr* message) { // all
                putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                putText(message, NFTA_SET_ELEM_LIST_SET, name.c_str());
            });
            deleteSet(name);
        }
        if (!m_setsChange)
            return;
        const OneOfs wanted = oneOfs(m_to);
        for (const auto& [name, condition] : oneOfs(m_from)) {
            if (!wanted.contains(name))
                deleteSet(name);
        }
        if (hasComparison(m_from) && !hasComparison(m_to)) {
            deleteSet(highDigits);
            deleteSet(lowDigits);
        }
    }

    void deleteRules(const compiled::Chain& chain)
    {
        m_batch.deleteRules(chainOfSteps(chain));
        if (chain.hook != compiled::Hook::None)
            m_batch.deleteRules(chain.name);
    }

    void deleteSet(const std::string& name)
    {
        m_batch.add(NFT_MSG_DELSET, 0, longestElement, [&](nlmsghdr* message) {
            putText(message, NFTA_SET_TABLE, table());
            putText(message, NFTA_SET_NAME, name.c_str());
        });
    }

    void deleteElements(const compiled::Map& map, std::span<const std::size_t> places)
    {
        inPortions(NFT_MSG_DELSETELEM, 0, map, places,
                   [&](nlmsghdr* message, const Element& element) { putKey(message, map, element); });
    }

    // ---- sets

    using OneOfs = std::map<std::string, Condition>; // by their names

    static void addOneOfs(const compiled::Chain& chain, OneOfs& to)
    {
        for (const Step& step : chain.steps) {
            for (const Condition& condition : step.conditions) {
                if (condition.kind == Condition::Kind::OneOf)
                    to.emplace(nameOf(condition), condition);
            }
        }
    }

    static OneOfs oneOfs(const compiled::Program& program)
    {
        OneOfs found;
        for (const compiled::Chain& chain : program.chains)
            addOneOfs(chain, found);
        return found;
    }

    // Most of the time the chains that change need the same ones before and after.
    bool changesSets(const compiled::Difference& difference) const
    {
        OneOfs before;
        OneOfs after;
        bool compared = false;
        bool compares = false;
        const auto addBefore = [&](const compiled::Chain& chain) {
            addOneOfs(chain, before);
            compared = compared || hasComparison(chain);
        };
        const auto addAfter = [&](const compiled::Chain& chain) {
            addOneOfs(chain, after);
            compares = compares || hasComparison(chain);
        };
        for (const std::size_t gone : difference.goneChains)
            addBefore(m_from.chains[gone]);
        for (const std::size_t added : difference.newChains)
            addAfter(m_to.chains[added]);
        for (const auto& [from, to] : difference.refilled) {
            addBefore(m_from.chains[from]);
            addAfter(m_to.chains[to]);
        }
        return before != after || compared != compares;
    }

    void addOneOfs()
    {
        const OneOfs there = oneOfs(m_from);
        for (const auto& [name, condition] : oneOfs(m_to)) {
            if (!there.contains(name))
                addOneOf(name, condition);
        }
    }

    void addOneOf(const std::string& name, const Condition& condition)
    {
        const std::vector<std::uint8_t> sizes{condition.of.field.size};
        addSet(name, sizes, 0, [](nlmsghdr*) {});
        m_batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE, longestElement * condition.value.size(), [&](nlmsghdr* message) {
            putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
            putText(message, NFTA_SET_ELEM_LIST_SET, name.c_str());
            const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
            for (auto at = condition.value.begin(); at != condition.value.end(); at += sizes[0]) {
                const Nest element(message, NFTA_LIST_ELEM);
                putBytes(message, NFTA_SET_ELEM_KEY, padded({at, at + sizes[0]}, sizes));
            }
        });
    }

    static bool hasComparison(const compiled::Chain& chain)
    {
        return std::ranges::any_of(chain.steps, [](const Step& step) {
            const auto* lead = std::get_if<compiled::Lead>(&step.action);
            return lead != nullptr && lead->than;
        });
    }

    static bool hasComparison(const compiled::Program& program)
    {
        return std::ranges::any_of(program.chains, [](const compiled::Chain& chain) { return hasComparison(chain); });
    }

    void addComparison()
    {
        addSet(highDigits, {1, 1}, highFlags, [](nlmsghdr* message) {
            put32(message, NFTA_SET_DATA_TYPE, 0);
            put32(message, NFTA_SET_DATA_LEN, wordSize);
        });
        addDigits(highDigits);
        addSet(lowDigits, {1, 1, 1}, lowFlags, [](nlmsghdr*) {});
        addDigits(lowDigits);
    }

    void addDigits(const char* set)
    {
        const std::vector<DigitsInterval> intervals = digitsIn(set);
        m_batch.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, longestElement * intervals.size(),
                    [&](nlmsghdr* message) {
                        putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                        putText(message, NFTA_SET_ELEM_LIST_SET, set);
                        const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
                        for (const DigitsInterval& each : intervals)
                            putDigits(message, each);
                    });
    }

    static void putDigits(nlmsghdr* message, const DigitsInterval& interval)
    {
        const std::vector<std::uint8_t> sizes(interval.first.size(), 1);
        const Nest nest(message, NFTA_LIST_ELEM);
        putBytes(message, NFTA_SET_ELEM_KEY, padded(interval.first, sizes));
        putBytes(message, NFTA_SET_ELEM_KEY_END, padded(interval.last, sizes));
        if (interval.answer)
            putBytes(message, NFTA_SET_ELEM_DATA, compiled::Bytes{*interval.answer, 0, 0, 0});
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
        addSet(nameOf(map), map.sizes, NFT_SET_MAP | intervals, [&](nlmsghdr* message) {
            putSizes(message, map.sizes);
            put32(message, NFTA_SET_DATA_TYPE, dataTypeOf(map));
            if (map.places || map.numbers)
                put32(message, NFTA_SET_DATA_LEN, answerSize);
            if (!map.counts)
                return;
            const Nest counter(message, NFTA_SET_EXPR);
            putText(message, NFTA_EXPR_NAME, "counter");
            const Nest body(message, NFTA_EXPR_DATA);
        });
    }

    // The kernel only keeps what the key's parts are where it needs to know.
    static void putSizes(nlmsghdr* message, const std::vector<std::uint8_t>& sizes)
    {
        std::vector<std::uint8_t> data{sizesType, static_cast<std::uint8_t>(sizes.size())};
        data.insert(data.end(), sizes.begin(), sizes.end());
        mnl_attr_put(message, NFTA_SET_USERDATA, data.size(), data.data());
    }

    void addElements(const compiled::Map& map, std::span<const std::size_t> places)
    {
        inPortions(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, map, places,
                   [&](nlmsghdr* message, const Element& element) { putElement(message, map, element); });
    }

    void inPortions(std::uint16_t type, std::uint16_t flags, const compiled::Map& map,
                    std::span<const std::size_t> places, const auto& putOne)
    {
        const std::string name = nameOf(map);
        while (!places.empty()) {
            const std::span<const std::size_t> some = places.first(std::min(places.size(), elementsEach));
            places = places.subspan(some.size());
            m_batch.add(type, flags, longestElement * (some.size() + 1), [&](nlmsghdr* message) {
                putText(message, NFTA_SET_ELEM_LIST_TABLE, table());
                putText(message, NFTA_SET_ELEM_LIST_SET, name.c_str());
                const Nest list(message, NFTA_SET_ELEM_LIST_ELEMENTS);
                for (const std::size_t place : some) {
                    const Nest element(message, NFTA_LIST_ELEM);
                    putOne(message, map.elements[place]);
                }
            });
        }
    }

    static void putKey(nlmsghdr* message, const compiled::Map& map, const Element& element)
    {
        putBytes(message, NFTA_SET_ELEM_KEY, padded(element.first, map.sizes));
        if (map.intervals)
            putBytes(message, NFTA_SET_ELEM_KEY_END, padded(element.last, map.sizes));
    }

    void putElement(nlmsghdr* message, const compiled::Map& map, const Element& element)
    {
        putKey(message, map, element);
        if (map.places)
            putBytes(message, NFTA_SET_ELEM_DATA, digitsOf(element.place));
        else if (map.numbers)
            putBytes(message, NFTA_SET_ELEM_DATA, compiled::numberOf(element.verdict));
        else
            putVerdict(message, NFTA_SET_ELEM_DATA, codeOf(element.verdict.kind), element.verdict.chain);
        if (element.origin == ebtables::noOrigin)
            return;
        putMark(message, NFTA_SET_ELEM_USERDATA, element.origin);
        const Counters counted = map.counts ? takeCounted(element.origin) : Counters();
        if (counted.packets == 0)
            return;
        const Nest counter(message, NFTA_SET_ELEM_EXPR);
        putText(message, NFTA_EXPR_NAME, "counter");
        const Nest body(message, NFTA_EXPR_DATA);
        put64(message, NFTA_COUNTER_BYTES, counted.bytes);
        put64(message, NFTA_COUNTER_PACKETS, counted.packets);
    }

    // ---- steps

    void addSteps(const compiled::Chain& chain)
    {
        const std::string name = chainOfSteps(chain);
        for (const Step& step : chain.steps)
            addStep(name, step);
        if (chain.hook == compiled::Hook::None)
            return;
        addStep(chain.name, {{}, compiled::Jump{name}});
        if (chain.dropsByPolicy)
            addStep(chain.name, dropStep());
    }

    void addStep(const std::string& chain, const Step& step)
    {
        if (const auto* plain = std::get_if<compiled::PlainRule>(&step.action)) {
            m_batch.addRule(chain, plain->rule, {}, takeCounted(plain->origin), plain->origin);
            note(plain->origin);
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
                putVerdictOf(message, std::get<compiled::LookUp>(step.action));
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
        putLookUp(message, lead.place, firstRegister + placeRegister);
        if (lead.than) {
            // In the end the digits lie as the sets' keys have them, from the first register on.
            putLookUp(message, *lead.than, firstRegister + 1);
            putMove(message, firstRegister + placeRegister, firstRegister);
            putAsk(message, highDigits, firstRegister, firstRegister + 1);
            putMove(message, firstRegister + placeRegister + 1, firstRegister);
            putAsk(message, lowDigits, firstRegister, std::nullopt);
        }
        putJump(message, NFT_GOTO, lead.chain);
    }

    void putVerdictOf(nlmsghdr* message, const compiled::LookUp& lookUp) const
    {
        const compiled::Map& map = m_to.maps[lookUp.map];
        putLookUp(message, lookUp, map.numbers ? firstRegister + placeRegister : std::uint32_t{NFT_REG_VERDICT});
        if (map.numbers)
            putAsk(message, compiled::nameOfMeanings(map.name), firstRegister + placeRegister, NFT_REG_VERDICT);
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
        putAsk(message, nameOf(m_to.maps[lookUp.map]), firstRegister, to);
    }

    Batch& m_batch;
    const compiled::Program& m_from;
    const compiled::Program& m_to;
    CountersByMark m_counted; // not given to anything yet
    const std::size_t m_first = m_batch.messages();
    std::vector<ebtables::Origin> m_marks; // of the messages
    std::uint32_t m_setId = 0;
    bool m_setsChange = false; // those that steps need beside maps
};

// Calls visit(mark) for what counts: elements, and rules as they stand.
void forEachMark(const compiled::Map& map, std::span<const std::size_t> places, const auto& visit)
{
    for (const std::size_t place : places) {
        if (map.counts)
            visit(map.elements[place].origin);
    }
}

void forEachMark(const compiled::Map& map, const auto& visit)
{
    for (const Element& element : map.elements) {
        if (map.counts)
            visit(element.origin);
    }
}

void forEachMark(const compiled::Chain& chain, const auto& visit)
{
    for (const Step& step : chain.steps) {
        if (const auto* plain = std::get_if<compiled::PlainRule>(&step.action))
            visit(plain->origin);
    }
}

} // namespace

void addProgram(Batch& batch, const compiled::Program& program)
{
    addChanges(batch, {}, program, compiled::difference({}, program));
}

std::vector<ebtables::Origin> addChanges(Batch& batch, const compiled::Program& from, const compiled::Program& to,
                                         const compiled::Difference& difference, CountersByMark counted)
{
    return Writer(batch, from, to, std::move(counted)).write(difference);
}

std::vector<ebtables::Origin> movedMarks(const compiled::Program& from, const compiled::Program& to,
                                         const compiled::Difference& difference)
{
    std::unordered_set<ebtables::Origin> gone;
    const auto noteGone = [&](ebtables::Origin mark) { gone.insert(mark); };
    for (const std::size_t chain : difference.goneChains)
        forEachMark(from.chains[chain], noteGone);
    for (const auto& [before, after] : difference.refilled)
        forEachMark(from.chains[before], noteGone);
    for (const std::size_t map : difference.goneMaps)
        forEachMark(from.maps[map], noteGone);
    for (const compiled::Difference::Elements& changes : difference.elements)
        forEachMark(from.maps[changes.from], changes.gone, noteGone);
    gone.erase(ebtables::noOrigin);

    std::vector<ebtables::Origin> moved;
    const auto noteNew = [&](ebtables::Origin mark) {
        if (gone.erase(mark) != 0)
            moved.push_back(mark);
    };
    for (const std::size_t chain : difference.newChains)
        forEachMark(to.chains[chain], noteNew);
    for (const auto& [before, after] : difference.refilled)
        forEachMark(to.chains[after], noteNew);
    for (const std::size_t map : difference.newMaps)
        forEachMark(to.maps[map], noteNew);
    for (const compiled::Difference::Elements& changes : difference.elements)
        forEachMark(to.maps[changes.to], changes.added, noteNew);
    return moved;
}

void renewTable(Batch& batch)
{
    batch.deleteTable();
    const std::string& table = batch.table();
    batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE, longestElement,
              [&](nlmsghdr* message) { putText(message, NFTA_TABLE_NAME, table.c_str()); });
}

std::string chainOfSteps(const compiled::Chain& chain)
{
    return chain.hook == compiled::Hook::None ? chain.name : "rules/" + chain.name;
}

Step dropStep()
{
    ebtables::Rule drop;
    drop.target = "DROP";
    return {{}, compiled::PlainRule{drop, ebtables::noOrigin}};
}

std::vector<DigitsInterval> digitsIn(std::string_view set)
{
    constexpr std::uint8_t decided = 0;
    constexpr std::uint8_t askLow = 1;
    constexpr std::uint8_t last = 0xff;
    std::vector<DigitsInterval> result;
    for (unsigned number = 0; number <= last; ++number) {
        const auto digit = static_cast<std::uint8_t>(number);
        const auto next = static_cast<std::uint8_t>(number + 1);
        if (set == highDigits) {
            result.push_back({{digit, digit}, {digit, digit}, askLow});
            if (digit != last)
                result.push_back({{digit, next}, {digit, last}, decided});
        } else if (digit == last) {
            result.push_back({{0, decided, 0}, {last, decided, last}, std::nullopt});
        } else {
            result.push_back({{digit, askLow, next}, {digit, askLow, last}, std::nullopt});
        }
    }
    return result;
}

std::uint32_t dataTypeOf(const compiled::Map& map)
{
    constexpr std::uint32_t integer = 4; // to programs that print it
    return map.places ? 0 : map.numbers ? integer : std::uint32_t{NFT_DATA_VERDICT};
}

std::string nameOf(const compiled::Map& map)
{
    return map.intervals ? map.name + "/intervals" : map.name;
}

std::string nameOf(const Condition& oneOf)
{
    std::string name = "one-of/" + std::to_string(oneOf.of.field.size) + "/";
    for (const std::uint8_t byte : oneOf.value) {
        name += "0123456789abcdef"[byte >> 4U];
        name += "0123456789abcdef"[byte & 15U];
    }
    return name;
}

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

compiled::Bytes unpadded(const compiled::Bytes& key, const std::vector<std::uint8_t>& sizes)
{
    compiled::Bytes result;
    std::size_t at = 0;
    for (const std::uint8_t size : sizes) {
        for (std::size_t i = 0; i < size && at + i < key.size(); ++i)
            result.push_back(key[at + i]);
        at += words(size) * wordSize;
    }
    return result;
}

} // namespace nftables
