#include "nftables/program_reader.hpp"

#include "compiled/numbers.hpp"
#include "nftables/attributes.hpp"
#include "nftables/expressions.hpp"
#include "nftables/rule_message.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace nftables
{

namespace
{

using compiled::Condition;
using compiled::Element;
using compiled::Field;
using compiled::Header;
using compiled::Map;
using compiled::MaskedField;
using compiled::Step;
using compiled::Verdict;

constexpr std::size_t wordsOfARegister = 4;
constexpr std::uint8_t sizeOfAName = 16;
constexpr std::string_view intervalsEnd = "/intervals";

// The kernel tells a register by its old, long number where it can. In words.
std::optional<std::size_t> registerOf(std::optional<std::uint32_t> number)
{
    if (number && *number >= NFT_REG_1 && *number <= NFT_REG_4)
        return (*number - NFT_REG_1) * wordsOfARegister;
    if (number && *number >= NFT_REG32_00 && *number <= NFT_REG32_15)
        return *number - NFT_REG32_00;
    return std::nullopt;
}

compiled::Bytes bytesOf(const nlattr* data)
{
    const nlattr* value = data == nullptr ? nullptr : Attributes<NFTA_DATA_MAX + 1>(data).find(NFTA_DATA_VALUE);
    if (value == nullptr)
        return {};
    const auto* const begin = static_cast<const std::uint8_t*>(mnl_attr_get_payload(value));
    return {begin, begin + mnl_attr_get_payload_len(value)};
}

struct ReadVerdict {
    int code = 0;
    std::string chain;
};

std::optional<ReadVerdict> verdictOf(const nlattr* data)
{
    const nlattr* verdict = data == nullptr ? nullptr : Attributes<NFTA_DATA_MAX + 1>(data).find(NFTA_DATA_VERDICT);
    if (verdict == nullptr)
        return std::nullopt;
    const Attributes<NFTA_VERDICT_MAX + 1> in(verdict);
    const std::optional<std::uint32_t> code = in.number(NFTA_VERDICT_CODE);
    if (!code)
        return std::nullopt;
    ReadVerdict result{static_cast<int>(*code), {}};
    if (const nlattr* chain = in.find(NFTA_VERDICT_CHAIN))
        result.chain = textOf(chain);
    return result;
}

std::optional<Verdict> verdictOfElement(const nlattr* data)
{
    std::optional<ReadVerdict> read = verdictOf(data);
    if (!read)
        return std::nullopt;
    switch (read->code) {
    case NF_ACCEPT:
        return Verdict{Verdict::Kind::Accept, {}};
    case NF_DROP:
        return Verdict{Verdict::Kind::Drop, {}};
    case NFT_RETURN:
        return Verdict{Verdict::Kind::Return, {}};
    case NFT_GOTO:
        return Verdict{Verdict::Kind::Goto, std::move(read->chain)};
    default:
        return std::nullopt;
    }
}

Counters countersOf(const nlattr* expression)
{
    const Attributes<NFTA_EXPR_MAX + 1> in(expression);
    const nlattr* body = in.find(NFTA_EXPR_DATA);
    if (body == nullptr)
        return {};
    const Attributes<NFTA_COUNTER_MAX + 1> counter(body);
    return {counter.longNumber(NFTA_COUNTER_PACKETS).value_or(0), counter.longNumber(NFTA_COUNTER_BYTES).value_or(0)};
}

bool isCounter(const nlattr* expression)
{
    const nlattr* name =
        expression == nullptr ? nullptr : Attributes<NFTA_EXPR_MAX + 1>(expression).find(NFTA_EXPR_NAME);
    return name != nullptr && textOf(name) == "counter";
}

// ---- steps

// Takes the expressions one after the other, as the writer puts them.
class StepReader
{
public:
    explicit StepReader(const std::vector<Map>& maps) : m_maps(maps) {}

    bool take(std::string_view name, const nlattr* body)
    {
        if (m_isComplete)
            return false;
        if (name == "meta")
            return takeMeta(Attributes<NFTA_META_MAX + 1>(body));
        if (name == "payload")
            return takePayload(Attributes<NFTA_PAYLOAD_MAX + 1>(body));
        if (name == "bitwise")
            return takeBitwise(Attributes<NFTA_BITWISE_MAX + 1>(body));
        if (name == "cmp")
            return takeCompare(Attributes<NFTA_CMP_MAX + 1>(body));
        if (name == "lookup")
            return takeLookUp(Attributes<NFTA_LOOKUP_MAX + 1>(body));
        return name == "immediate" && takeJump(Attributes<NFTA_IMMEDIATE_MAX + 1>(body));
    }

    std::optional<Step> result() { return m_isComplete ? std::optional(std::move(m_step)) : std::nullopt; }

private:
    bool takeMeta(const auto& in)
    {
        const std::optional<std::uint32_t> key = in.number(NFTA_META_KEY);
        if (key != NFT_META_IIFNAME && key != NFT_META_OIFNAME)
            return false;
        return load({key == NFT_META_IIFNAME ? Header::InPort : Header::OutPort, 0, sizeOfAName},
                    registerOf(in.number(NFTA_META_DREG)));
    }

    bool takePayload(const auto& in)
    {
        const std::optional<std::uint32_t> base = in.number(NFTA_PAYLOAD_BASE);
        const std::uint32_t offset = in.number(NFTA_PAYLOAD_OFFSET).value_or(~0U);
        const std::uint32_t length = in.number(NFTA_PAYLOAD_LEN).value_or(~0U);
        if ((base != NFT_PAYLOAD_LL_HEADER && base != NFT_PAYLOAD_NETWORK_HEADER) || offset > 0xff || length > 0xff)
            return false;
        return load({base == NFT_PAYLOAD_LL_HEADER ? Header::Link : Header::Network, static_cast<std::uint8_t>(offset),
                     static_cast<std::uint8_t>(length)},
                    registerOf(in.number(NFTA_PAYLOAD_DREG)));
    }

    // A load into the first register begins something new: what was loaded there is only asked whether it is there.
    bool load(const Field& field, std::optional<std::size_t> to)
    {
        if (to == std::size_t{0} && !m_loaded.empty() && !endPresence())
            return false;
        if (to != m_next)
            return false;
        m_next += (field.size + 3U) / 4U;
        m_loaded.push_back({field, compiled::Bytes(field.size, 0xff)});
        return true;
    }

    bool endPresence()
    {
        if (m_loaded.size() != 1)
            return false;
        m_step.conditions.push_back({Condition::Kind::Present, m_loaded.front(), {}});
        forget();
        return true;
    }

    void forget()
    {
        m_loaded.clear();
        m_next = 0;
    }

    bool takeBitwise(const auto& in)
    {
        const compiled::Bytes mask = bytesOf(in.find(NFTA_BITWISE_MASK));
        const compiled::Bytes flipped = bytesOf(in.find(NFTA_BITWISE_XOR));
        if (in.number(NFTA_BITWISE_OP).value_or(NFT_BITWISE_BOOL) != NFT_BITWISE_BOOL ||
            std::ranges::any_of(flipped, [](std::uint8_t byte) { return byte != 0; }))
            return false;
        if (m_lead && m_lead->than)
            return takeMove(registerOf(in.number(NFTA_BITWISE_SREG)), registerOf(in.number(NFTA_BITWISE_DREG)), mask);
        if (m_loaded.empty() || mask.size() != m_loaded.back().mask.size())
            return false;
        m_loaded.back().mask = mask;
        return true;
    }

    // Of a comparison of places: a digit goes where the sets' keys have it.
    bool takeMove(std::optional<std::size_t> from, std::optional<std::size_t> to, const compiled::Bytes& mask)
    {
        const bool isHigh = m_compared++ == 0;
        return std::ranges::all_of(mask, [](std::uint8_t byte) { return byte == 0xff; }) &&
               from == (isHigh ? placeRegister : placeRegister + 1) && to == 0U && m_compared == (isHigh ? 1 : 3);
    }

    bool takeCompare(const auto& in)
    {
        const std::optional<std::uint32_t> how = in.number(NFTA_CMP_OP);
        if (m_loaded.size() != 1 || (how != NFT_CMP_EQ && how != NFT_CMP_NEQ))
            return false;
        m_step.conditions.push_back({how == NFT_CMP_EQ ? Condition::Kind::Equal : Condition::Kind::Differs,
                                     m_loaded.front(), bytesOf(in.find(NFTA_CMP_DATA))});
        forget();
        return true;
    }

    bool takeLookUp(const auto& in)
    {
        const nlattr* set = in.find(NFTA_LOOKUP_SET);
        if (set == nullptr || in.number(NFTA_LOOKUP_FLAGS).value_or(0) != 0)
            return false;
        const std::string name(textOf(set));
        const bool answers = in.find(NFTA_LOOKUP_DREG) != nullptr;
        if (name == highDigits)
            return m_compared++ == 1;
        if (name == lowDigits)
            return m_compared++ == 3;
        if (m_numbered)
            return takeMeanings(name, in);
        if (m_loaded.empty())
            return false;
        if (!answers)
            return takeOneOf(name);
        const auto map = std::ranges::find(m_maps, name, [](const Map& each) { return nameOf(each); });
        if (map == m_maps.end())
            return false;
        compiled::LookUp lookUp{static_cast<std::size_t>(map - m_maps.begin()), std::exchange(m_loaded, {})};
        forget();
        if (in.number(NFTA_LOOKUP_DREG) == std::uint32_t{NFT_REG_VERDICT}) {
            m_step.action = std::move(lookUp);
            m_isComplete = true;
            return !map->places && !map->numbers && !m_lead;
        }
        const std::optional<std::size_t> to = registerOf(in.number(NFTA_LOOKUP_DREG));
        if (map->numbers) {
            m_numbered = std::move(lookUp);
            return !m_lead && to == placeRegister;
        }
        if (!m_lead)
            m_lead.emplace().place = std::move(lookUp);
        else
            m_lead->than = std::move(lookUp);
        return map->places && to == (m_lead->than ? 1U : placeRegister);
    }

    // What the number that was looked up means.
    bool takeMeanings(const std::string& name, const auto& in)
    {
        const bool isTheirs = name == compiled::nameOfMeanings(m_maps[m_numbered->map].name) &&
                              registerOf(in.number(NFTA_LOOKUP_SREG)) == placeRegister &&
                              in.number(NFTA_LOOKUP_DREG) == std::uint32_t{NFT_REG_VERDICT};
        m_step.action = std::move(*m_numbered);
        m_isComplete = true;
        return isTheirs;
    }

    // Such a set is named for what is in it.
    bool takeOneOf(const std::string& name)
    {
        if (m_loaded.size() != 1)
            return false;
        Condition condition{Condition::Kind::OneOf, m_loaded.front(), {}};
        const std::size_t begin = name.rfind('/') + 1;
        const auto digit = [&](std::size_t at) { return std::string_view("0123456789abcdef").find(name[at]) & 15U; };
        for (std::size_t at = begin; at + 1 < name.size(); at += 2)
            condition.value.push_back(static_cast<std::uint8_t>(digit(at) << 4U | digit(at + 1)));
        if (nameOf(condition) != name)
            return false;
        m_step.conditions.push_back(std::move(condition));
        forget();
        return true;
    }

    bool takeJump(const auto& in)
    {
        const std::optional<ReadVerdict> verdict = verdictOf(in.find(NFTA_IMMEDIATE_DATA));
        if (!verdict || (verdict->code != NFT_JUMP && verdict->code != NFT_GOTO) ||
            (!m_loaded.empty() && !endPresence()))
            return false;
        m_isComplete = true;
        if (!m_lead) {
            m_step.action = compiled::Jump{verdict->chain, verdict->code == NFT_JUMP};
            return true;
        }
        m_lead->chain = verdict->chain;
        const bool isWhole = verdict->code == NFT_GOTO && m_compared == (m_lead->than ? 4 : 0);
        m_step.action = std::move(*m_lead);
        return isWhole;
    }

    const std::vector<Map>& m_maps;
    Step m_step;
    std::vector<MaskedField> m_loaded; // and not yet used
    std::size_t m_next = 0;            // register
    std::optional<compiled::Lead> m_lead;
    std::optional<compiled::LookUp> m_numbered; // of which the verdict is to come
    int m_compared = 0;                         // parts of a comparison of places that were seen
    bool m_isComplete = false;
};

// ---- the whole

class Reader
{
public:
    Reader(Connection& connection, const std::string& table, HeldProgram& held)
        : m_connection(connection), m_table(table), m_held(held)
    {
    }

    // part: null for all of it.
    Result read(const PartOfProgram* part, bool& settled)
    {
        m_held = {};
        Result result;
        result.answer = Answer::Done;
        if (part == nullptr) {
            result = readChains();
            if (result.answer != Answer::Done || m_held.table == 0)
                return result;
        } else {
            for (const std::string& chain : part->chains)
                addChain({chain, compiled::Hook::None, false, {}});
        }
        if (part == nullptr || !part->maps.empty())
            result = m_connection.list(
                NFT_MSG_GETSET, [this](nlmsghdr* request) { putText(request, NFTA_SET_TABLE, m_table.c_str()); },
                [this](const nlmsghdr* message) { return takeSet(Attributes<NFTA_SET_MAX + 1>(message)); }, settled);
        if (result.answer == Answer::Done && part == nullptr)
            result = readRules(nullptr, settled);
        if (part != nullptr) {
            for (const std::string& chain : part->chains) {
                if (result.answer == Answer::Done)
                    result = readRules(chain.c_str(), settled);
            }
        }
        for (const auto& [name, map] : m_sets) {
            if (result.answer == Answer::Done && (part == nullptr || part->maps.contains(name)))
                result = readElements(name, map, settled);
        }
        takeMeanings(part == nullptr);
        for (const auto& [name, values] : m_oneOfs)
            m_held.isWhole = m_held.isWhole && name == nameOf(values);
        for (const auto& [name, found] : m_digits)
            m_held.isWhole = m_held.isWhole && isComplete(name, found);
        takePolicies();
        return result;
    }

private:
    Result readChains()
    {
        std::vector<ChainView> chains;
        Result result = m_connection.readChains(chains, m_held.table, m_table);
        for (ChainView& chain : chains) {
            using compiled::Hook;
            const Hook hook = !chain.builtIn ? Hook::None : chain.name == "INPUT" ? Hook::Input : Hook::Forward;
            // A policy of ours is a rule.
            m_held.isWhole = m_held.isWhole && !chain.foreign && chain.policy == "ACCEPT" && chain.name != "OUTPUT";
            addChain({std::move(chain.name), hook, false, {}});
        }
        return result;
    }

    void addChain(compiled::Chain chain)
    {
        m_places.emplace(chain.name, m_held.program.chains.size());
        m_held.program.chains.push_back(std::move(chain));
        m_held.chains.emplace_back();
    }

    bool takeSet(const auto& in)
    {
        const nlattr* const name = in.find(NFTA_SET_NAME);
        if (name == nullptr)
            return false;
        const std::uint32_t flags = in.number(NFTA_SET_FLAGS).value_or(0);
        if (textOf(name) == highDigits || textOf(name) == lowDigits) {
            m_sets.emplace(textOf(name), none);
            m_digits[std::string(textOf(name))];
            m_held.isWhole = m_held.isWhole && flags == (textOf(name) == highDigits ? highFlags : lowFlags);
            return true;
        }
        if (flags == 0) { // values that a field may have
            m_sets.emplace(textOf(name), none);
            m_oneOfs[std::string(textOf(name))] = {Condition::Kind::OneOf, {}, {}};
            return true;
        }
        constexpr std::uint32_t intervalFlags = NFT_SET_INTERVAL | NFT_SET_CONCAT;
        Map map;
        map.intervals = (flags & NFT_SET_INTERVAL) != 0;
        map.counts = isCounter(in.find(NFTA_SET_EXPR));
        map.places = in.number(NFTA_SET_DATA_TYPE) == 0U;
        map.numbers = !map.places && in.number(NFTA_SET_DATA_TYPE) != std::uint32_t{NFT_DATA_VERDICT};
        map.name = textOf(name);
        if (map.intervals && map.name.ends_with(intervalsEnd))
            map.name.resize(map.name.size() - intervalsEnd.size());
        if (const nlattr* userData = in.find(NFTA_SET_USERDATA))
            readSizes(userData, map);
        if (flags != (NFT_SET_MAP | (map.intervals ? intervalFlags : 0)) ||
            in.number(NFTA_SET_DATA_TYPE) != dataTypeOf(map) || map.sizes.empty() || nameOf(map) != textOf(name)) {
            m_held.isWhole = false;
            return true;
        }
        m_sets.emplace(textOf(name), m_held.program.maps.size());
        m_held.program.maps.push_back(std::move(map));
        m_held.maps.emplace_back();
        return true;
    }

    static void readSizes(const nlattr* userData, Map& map)
    {
        const auto* const data = static_cast<const std::uint8_t*>(mnl_attr_get_payload(userData));
        const std::size_t length = mnl_attr_get_payload_len(userData);
        if (length >= 2 && data[0] == sizesType && data[1] == length - 2)
            map.sizes.assign(data + 2, data + length);
    }

    // chain: null for all.
    Result readRules(const char* chain, bool& settled)
    {
        return m_connection.list(
            NFT_MSG_GETRULE,
            [&](nlmsghdr* request) {
                putText(request, NFTA_RULE_TABLE, m_table.c_str());
                if (chain != nullptr)
                    putText(request, NFTA_RULE_CHAIN, chain);
            },
            [this](const nlmsghdr* message) { return takeRule(nftables::readRule(message)); }, settled);
    }

    bool takeRule(const RuleView& rule)
    {
        if (rule.table != m_table)
            return true;
        const auto place = m_places.find(rule.chain);
        std::optional<Step> step = readStep(rule, m_held.program.maps);
        if (place == m_places.end() || !step) {
            m_held.isWhole = false;
            return true;
        }
        m_expressions.counters = {};
        if (std::holds_alternative<compiled::PlainRule>(step->action))
            rule.readExpressions(m_expressions);
        m_held.program.chains[place->second].steps.push_back(std::move(*step));
        m_held.chains[place->second].push_back(m_expressions.counters);
        return true;
    }

    Result readElements(const std::string& name, std::size_t map, bool& settled)
    {
        return m_connection.list(
            NFT_MSG_GETSETELEM,
            [&](nlmsghdr* request) {
                putText(request, NFTA_SET_ELEM_LIST_TABLE, m_table.c_str());
                putText(request, NFTA_SET_ELEM_LIST_SET, name.c_str());
            },
            [&](const nlmsghdr* message) {
                const Attributes<NFTA_SET_ELEM_LIST_MAX + 1> in(message);
                if (const nlattr* list = in.find(NFTA_SET_ELEM_LIST_ELEMENTS))
                    forEachNested(list, [&](const nlattr* element) {
                        const Attributes<NFTA_SET_ELEM_MAX + 1> parts(element);
                        const bool isKnown = m_digits.contains(name) ? takeDigits(name, parts)
                                             : map == none           ? takeValue(name, parts)
                                                                     : takeElement(map, parts);
                        m_held.isWhole = m_held.isWhole && isKnown;
                    });
                return true;
            },
            settled);
    }

    bool takeElement(std::size_t number, const auto& in)
    {
        Map& map = m_held.program.maps[number];
        const nlattr* const data = in.find(NFTA_SET_ELEM_DATA);
        const bool hasVerdict = !map.places && !map.numbers;
        const std::optional<Verdict> verdict = hasVerdict ? verdictOfElement(data) : Verdict();
        const compiled::Bytes answer = hasVerdict ? compiled::Bytes() : bytesOf(data);
        if (!verdict || (map.places && answer.size() < 5))
            return false;
        Element element;
        if (map.places)
            element.place = static_cast<compiled::Place>(answer[0] << 8U | answer[4]);
        element.first = unpadded(bytesOf(in.find(NFTA_SET_ELEM_KEY)), map.sizes);
        if (map.intervals)
            element.last = unpadded(bytesOf(in.find(NFTA_SET_ELEM_KEY_END)), map.sizes);
        element.verdict = *verdict;
        if (map.numbers)
            m_numbers[number].push_back(answer);
        if (const nlattr* user = in.find(NFTA_SET_ELEM_USERDATA))
            element.origin = readMark(user);
        const nlattr* const counter = in.find(NFTA_SET_ELEM_EXPR);
        m_held.maps[number].push_back(isCounter(counter) ? countersOf(counter) : Counters());
        map.elements.push_back(std::move(element));
        return true;
    }

    // What the elements' numbers mean; in a part of a program not all are known, and none are asked for.
    void takeMeanings(bool isWhole)
    {
        for (const auto& [map, numbers] : m_numbers) {
            Map& numbered = m_held.program.maps[map];
            const auto meanings = m_sets.find(compiled::nameOfMeanings(numbered.name));
            std::map<compiled::Bytes, Verdict> known;
            if (meanings != m_sets.end() && meanings->second != none) {
                for (const Element& element : m_held.program.maps[meanings->second].elements)
                    known.emplace(element.first, element.verdict);
            }
            for (std::size_t i = 0; i < numbers.size(); ++i) {
                const auto found = known.find(numbers[i]);
                if (found != known.end())
                    numbered.elements.edit()[i].verdict = found->second;
                m_held.isWhole = m_held.isWhole && (found != known.end() || !isWhole);
            }
        }
    }

    bool takeDigits(const std::string& name, const auto& in)
    {
        const std::vector<std::uint8_t> sizes(name == highDigits ? 2 : 3, 1);
        DigitsInterval interval{unpadded(bytesOf(in.find(NFTA_SET_ELEM_KEY)), sizes),
                                unpadded(bytesOf(in.find(NFTA_SET_ELEM_KEY_END)), sizes), std::nullopt};
        if (const compiled::Bytes answer = bytesOf(in.find(NFTA_SET_ELEM_DATA)); !answer.empty())
            interval.answer = answer.front();
        m_digits[name].push_back(std::move(interval));
        return true;
    }

    static bool isComplete(std::string_view set, std::vector<DigitsInterval> found)
    {
        std::vector<DigitsInterval> expected = digitsIn(set);
        std::ranges::sort(expected);
        std::ranges::sort(found);
        return found == expected;
    }

    // The kernel has no order for them.
    bool takeValue(const std::string& name, const auto& in)
    {
        const std::size_t slash = name.find('/');
        const std::size_t size =
            slash == std::string::npos ? 0 : static_cast<std::size_t>(std::max(name[slash + 1] - '0', 0));
        const compiled::Bytes value = bytesOf(in.find(NFTA_SET_ELEM_KEY));
        if (size == 0 || size > value.size())
            return false;
        Condition& condition = m_oneOfs[name];
        condition.of.field.size = static_cast<std::uint8_t>(size);
        auto at = condition.value.begin();
        while (at != condition.value.end() &&
               std::lexicographical_compare(at, at + static_cast<std::ptrdiff_t>(size), value.begin(), value.end()))
            at += static_cast<std::ptrdiff_t>(size);
        condition.value.insert(at, value.begin(), value.begin() + static_cast<std::ptrdiff_t>(size));
        return true;
    }

    // Behind each hook a jump to the steps, and the policy.
    void takePolicies()
    {
        std::vector<compiled::Chain>& chains = m_held.program.chains;
        for (compiled::Chain& chain : chains) {
            if (chain.hook == compiled::Hook::None)
                continue;
            const std::string name = chainOfSteps(chain);
            const auto steps = std::ranges::find(chains, name, &compiled::Chain::name);
            chain.dropsByPolicy = chain.steps.size() == 2;
            m_held.isWhole = m_held.isWhole && steps != chains.end() && !chain.steps.empty() &&
                             chain.steps.size() <= 2 && chain.steps[0] == Step{{}, compiled::Jump{name}} &&
                             (!chain.dropsByPolicy || chain.steps[1] == dropStep());
            chain.steps.clear();
            m_held.chains[numberOf(chain)].clear();
            if (steps == chains.end())
                continue;
            chain.steps = std::move(steps->steps);
            m_held.chains[numberOf(chain)] = std::move(m_held.chains[numberOf(*steps)]);
            steps->name.clear();
        }
        for (std::size_t i = chains.size(); i-- > 0;) {
            if (!chains[i].name.empty())
                continue;
            chains.erase(chains.begin() + static_cast<std::ptrdiff_t>(i));
            m_held.chains.erase(m_held.chains.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }

    std::size_t numberOf(const compiled::Chain& chain) const
    {
        return static_cast<std::size_t>(&chain - m_held.program.chains.data());
    }

    static constexpr std::size_t none = ~std::size_t{0};

    Connection& m_connection;
    const std::string& m_table;
    HeldProgram& m_held;
    std::map<std::string, std::size_t, std::less<>> m_places; // of the chains
    std::map<std::string, std::size_t, std::less<>> m_sets;   // all, and which map of the program's each is
    std::map<std::string, Condition> m_oneOfs;                // those that are none, as their elements have them
    std::map<std::string, std::vector<DigitsInterval>, std::less<>> m_digits; // likewise
    std::map<std::size_t, std::vector<compiled::Bytes>> m_numbers;            // of the maps that have them, by element
    Expressions m_expressions;
};

class Sums
{
public:
    explicit Sums(const HeldProgram& held) : m_held(held) {}

    void addChain(std::size_t chain)
    {
        const compiled::List<Step>& steps = m_held.program.chains[chain].steps;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (const auto* plain = std::get_if<compiled::PlainRule>(&steps[i].action))
                add(plain->origin, m_held.chains[chain][i]);
        }
    }

    void addElement(std::size_t map, std::size_t element)
    {
        add(m_held.program.maps[map].elements[element].origin, m_held.maps[map][element]);
    }

    void addMap(std::size_t map)
    {
        for (std::size_t i = 0; i < m_held.maps[map].size(); ++i)
            addElement(map, i);
    }

    CountersByMark take() { return std::move(m_sums); }

private:
    void add(ebtables::Origin mark, const Counters& counters)
    {
        if (mark == ebtables::noOrigin)
            return;
        Counters& sum = m_sums[mark];
        sum.packets += counters.packets;
        sum.bytes += counters.bytes;
    }

    const HeldProgram& m_held;
    CountersByMark m_sums;
};

} // namespace

CountersByMark countedBy(const HeldProgram& held)
{
    Sums sums(held);
    for (std::size_t i = 0; i < held.chains.size(); ++i)
        sums.addChain(i);
    for (std::size_t i = 0; i < held.maps.size(); ++i)
        sums.addMap(i);
    return sums.take();
}

CountersByMark countedByGone(const HeldProgram& held, const compiled::Difference& difference)
{
    Sums sums(held);
    for (const std::size_t gone : difference.goneChains)
        sums.addChain(gone);
    for (const auto& [before, after] : difference.refilled)
        sums.addChain(before);
    for (const std::size_t gone : difference.goneMaps)
        sums.addMap(gone);
    for (const compiled::Difference::Elements& changes : difference.elements) {
        for (const std::size_t gone : changes.gone)
            sums.addElement(changes.from, gone);
    }
    return sums.take();
}

Result readProgram(Connection& connection, const std::string& table, HeldProgram& held, bool& settled)
{
    return Reader(connection, table, held).read(nullptr, settled);
}

Result readPart(Connection& connection, const std::string& table, const PartOfProgram& part, HeldProgram& held,
                bool& settled)
{
    return Reader(connection, table, held).read(&part, settled);
}

std::optional<PartOfProgram> goneWhole(const compiled::Program& from, const compiled::Difference& difference,
                                       std::span<const ebtables::Origin> moved)
{
    const std::unordered_set<ebtables::Origin> marks(moved.begin(), moved.end());
    for (const compiled::Difference::Elements& changes : difference.elements) {
        for (const std::size_t gone : changes.gone) {
            if (marks.contains(from.maps[changes.from].elements[gone].origin))
                return std::nullopt;
        }
    }
    PartOfProgram part;
    for (const std::size_t chain : difference.goneChains)
        part.chains.insert(chainOfSteps(from.chains[chain]));
    for (const auto& [before, after] : difference.refilled)
        part.chains.insert(chainOfSteps(from.chains[before]));
    for (const std::size_t map : difference.goneMaps)
        part.maps.insert(nameOf(from.maps[map]));
    return part;
}

std::optional<Step> readStep(const RuleView& rule, const std::vector<Map>& maps)
{
    Expressions expressions;
    if (!rule.readExpressions(expressions))
        return std::nullopt;
    if (const std::optional<ebtables::Rule> plain = decode(expressions))
        return Step{{}, compiled::PlainRule{*plain, readMark(rule)}};
    StepReader reader(maps);
    bool isGood = true;
    forEachNested(Attributes<NFTA_RULE_MAX + 1>(rule.message).find(NFTA_RULE_EXPRESSIONS), [&](const nlattr* element) {
        const Attributes<NFTA_EXPR_MAX + 1> in(element);
        const nlattr* name = in.find(NFTA_EXPR_NAME);
        const nlattr* body = in.find(NFTA_EXPR_DATA);
        isGood = isGood && name != nullptr && body != nullptr && reader.take(textOf(name), body);
    });
    return isGood ? reader.result() : std::nullopt;
}

} // namespace nftables
