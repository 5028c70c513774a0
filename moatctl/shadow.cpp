#include "moatctl/shadow.hpp"

#include "moatctl/cover.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace moatctl
{

namespace
{

using ebtables::Rule;

// Earlier rules that may cover a given one are found by their values, not one by one. Rules of the same form (the
// same matches with the same masks) have keys made of the same parts, and one covers another only if the other, cut
// down to that form, has the same key. Matches that are negated or no single value take no part in keys.
class Form
{
public:
    static Form of(const Conjunction& conjunction)
    {
        Form form;
        Parts parts(conjunction);
        parts.visit([&](bool exact, std::string_view mask, std::string_view) {
            form.m_masks.push_back(exact ? std::optional(std::string(mask)) : std::nullopt);
        });
        return form;
    }

    // Nothing when the conjunction is wider than the form, so that no rule of this form covers it.
    std::optional<std::string> keyOf(const Conjunction& conjunction) const
    {
        std::string key;
        bool narrow = true;
        std::size_t part = 0;
        Parts(conjunction).visit([&](bool exact, std::string_view mask, std::string_view value) {
            const std::optional<std::string>& wanted = m_masks[part++];
            if (!wanted)
                return;
            if (!exact || mask.size() != wanted->size()) {
                narrow = false;
                return;
            }
            for (std::size_t i = 0; i < mask.size(); ++i)
                narrow = narrow && ((*wanted)[i] & ~mask[i]) == 0;
            // A name has no mask.
            for (std::size_t i = 0; i < value.size(); ++i)
                key += mask.empty() ? value[i] : static_cast<char>(value[i] & (*wanted)[i]);
            key += '\0';
        });
        return narrow ? std::optional(key) : std::nullopt;
    }

    auto operator<=>(const Form&) const = default;

private:
    // A conjunction as values with masks, always the same number of them in the same order.
    class Parts
    {
    public:
        explicit Parts(const Conjunction& conjunction) : m_conjunction(conjunction) {}

        template <typename Visitor>
        void visit(const Visitor& visitor)
        {
            name(
                [](const Rule& rule) -> auto& { return rule.in; }, visitor);
            name(
                [](const Rule& rule) -> auto& { return rule.out; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.source; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.destination; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.ip.source; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.ip.destination; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.ip6.source; }, visitor);
            masked(
                [](const Rule& rule) -> auto& { return rule.ip6.destination; }, visitor);
            number(
                [](const Rule& rule) -> auto& { return rule.vlan.id; }, visitor);
            number(
                [](const Rule& rule) -> auto& { return rule.ip.protocol; }, visitor);
            number(
                [](const Rule& rule) -> auto& { return rule.ip.destinationPort; }, visitor);
            number(
                [](const Rule& rule) -> auto& { return rule.ip6.protocol; }, visitor);
            number(
                [](const Rule& rule) -> auto& { return rule.ip6.destinationPort; }, visitor);
            type(
                [](const Rule& rule) -> auto& { return rule.ethertype; }, visitor);
            type(
                [](const Rule& rule) -> auto& { return rule.vlan.encapsulated; }, visitor);
        }

    private:
        // The first match of the kind that is not negated.
        template <typename Of>
        auto find(const Of& of) const
        {
            const auto positive = [&](const Rule* rule) { return of(*rule) && !of(*rule)->negated; };
            const auto found = std::ranges::find_if(m_conjunction, positive);
            return found != m_conjunction.end() ? &*of(**found) : nullptr;
        }

        template <typename Of, typename Visitor>
        void name(const Of& of, const Visitor& visitor) const
        {
            const auto* match = find(of);
            const bool exact = match != nullptr && !match->prefix;
            visitor(exact, "", exact ? std::string_view(match->name) : std::string_view());
        }

        template <typename Of, typename Visitor>
        void masked(const Of& of, const Visitor& visitor) const
        {
            const auto* match = find(of);
            if (match == nullptr)
                return visitor(false, "", "");
            const std::string mask(match->mask.begin(), match->mask.end());
            const std::string address(match->address.begin(), match->address.end());
            visitor(true, mask, address);
        }

        template <typename Of, typename Visitor>
        void number(const Of& of, const Visitor& visitor) const
        {
            const auto* match = find(of);
            const bool exact = match != nullptr && match->first == match->last;
            visitor(exact, "", exact ? std::to_string(match->first) : std::string());
        }

        template <typename Of, typename Visitor>
        void type(const Of& of, const Visitor& visitor) const
        {
            const auto* match = find(of);
            const bool exact = match != nullptr && !match->lengthField;
            visitor(exact, "", exact ? std::to_string(match->number) : std::string());
        }

        const Conjunction& m_conjunction;
    };

    std::vector<std::optional<std::string>> m_masks;
};

class Finder
{
public:
    explicit Finder(const BridgeModel& model) : m_model(model) {}

    std::vector<Shadowed> find()
    {
        for (const char* chain : {"INPUT", "FORWARD"}) {
            m_invocations.clear();
            m_deciders.clear();
            m_index.clear();
            m_stack.clear();
            m_path.clear();
            walkChain(*m_model.find(chain));
        }
        std::vector<Shadowed> result;
        for (const ModelChain& chain : m_model.chains()) {
            for (const ModelRule& rule : chain.rules) {
                if (const auto found = m_found.find(&rule); found != m_found.end() && found->second)
                    result.push_back(*found->second);
            }
        }
        return result;
    }

private:
    // One way into a chain.
    struct Invocation {
        std::vector<const Rule*> returns; // rules that leave it early, so far
        bool active = true;
    };

    // Frames that match the path and come to it go no further: they are decided or (onlyReturns) leave the chain.
    struct Decider {
        Conjunction path;
        std::vector<std::pair<std::size_t, std::size_t>> stack; // invocations and how many returns stood before
        bool onlyReturns = false;
        const ModelRule* rule = nullptr;
        const ModelChain* chain = nullptr;
    };

    void walkChain(const ModelChain& chain)
    {
        constexpr std::size_t deepest = 16; // the kernel's limit
        if (m_stack.size() == deepest)
            return;
        m_stack.push_back(m_invocations.size());
        m_invocations.emplace_back();
        for (const ModelRule& rule : chain.rules) {
            m_path.push_back(&rule.rule);
            visit(chain, rule);
            m_path.pop_back();
        }
        if (m_stack.size() > 1 && chain.policy != "RETURN")
            addDecider(chain, nullptr);
        m_invocations[m_stack.back()].active = false;
        m_stack.pop_back();
    }

    void visit(const ModelChain& chain, const ModelRule& rule)
    {
        const Decider* by = findDecider();
        auto [place, isNew] = m_found.try_emplace(&rule);
        if (by == nullptr) {
            place->second.reset();
        } else {
            if (isNew)
                place->second = Shadowed{&rule, by->rule, by->chain, by->rule != nullptr && covers(m_path, by->path)};
            return; // none of its frames comes here
        }

        const std::string& target = rule.rule.target;
        if (target == "ACCEPT" || target == "DROP" || target == "RETURN") {
            addDecider(chain, &rule);
            if (target == "RETURN")
                m_invocations[m_stack.back()].returns.push_back(&rule.rule);
        } else if (const ModelChain* next = m_model.find(target); next != nullptr) {
            walkChain(*next);
        }
    }

    void addDecider(const ModelChain& chain, const ModelRule* rule)
    {
        Decider decider;
        decider.path = m_path;
        for (const std::size_t invocation : m_stack)
            decider.stack.emplace_back(invocation, m_invocations[invocation].returns.size());
        decider.onlyReturns = rule != nullptr && rule->rule.target == "RETURN" && m_stack.size() > 1;
        decider.rule = rule;
        decider.chain = &chain;
        const Form form = Form::of(m_path);
        m_index[form][*form.keyOf(m_path)].push_back(m_deciders.size());
        m_deciders.push_back(std::move(decider));
    }

    // The first one that takes all frames of the path walked now.
    const Decider* findDecider() const
    {
        std::size_t first = m_deciders.size();
        for (const auto& [form, byKey] : m_index) {
            const std::optional<std::string> key = form.keyOf(m_path);
            if (!key)
                continue;
            const auto bucket = byKey.find(*key);
            if (bucket == byKey.end())
                continue;
            for (const std::size_t candidate : bucket->second) {
                if (candidate >= first)
                    break;
                if (takesAll(m_deciders[candidate])) {
                    first = candidate;
                    break;
                }
            }
        }
        return first < m_deciders.size() ? &m_deciders[first] : nullptr;
    }

    bool takesAll(const Decider& decider) const
    {
        if (decider.onlyReturns && !m_invocations[decider.stack.back().first].active)
            return false;
        if (!covers(decider.path, m_path))
            return false;
        // A frame may have left a chain before it came to the decider.
        return std::ranges::all_of(decider.stack, [&](const auto& entry) {
            const Invocation& invocation = m_invocations[entry.first];
            if (invocation.active)
                return true;
            return std::all_of(invocation.returns.begin(),
                               invocation.returns.begin() + static_cast<std::ptrdiff_t>(entry.second),
                               [&](const Rule* rule) { return disjoint({rule}, m_path); });
        });
    }

    const BridgeModel& m_model;
    std::vector<Invocation> m_invocations;
    std::vector<Decider> m_deciders;
    std::map<Form, std::unordered_map<std::string, std::vector<std::size_t>>> m_index;
    std::vector<std::size_t> m_stack; // invocations on the way
    Conjunction m_path;               // the jumps on the way and the rule
    // Nothing: reached on some way.
    std::unordered_map<const ModelRule*, std::optional<Shadowed>> m_found;
};

} // namespace

std::vector<Shadowed> findShadowed(const BridgeModel& model)
{
    return Finder(model).find();
}

} // namespace moatctl
