// Each rule's text once, however many places name it: equal rules have the same address.
#pragma once

#include "ebtables/command.hpp"

#include <string>
#include <string_view>
#include <unordered_set>

namespace zol::cfg
{

// Threading: no shared state. No operation throws but std::bad_alloc.
class RulePool
{
public:
    using Text = const std::string*; // valid until it is swept

    Text add(const ebtables::Rule& rule)
    {
        m_scratch.clear();
        appendText(m_scratch, rule);
        return &*m_texts.insert(m_scratch).first;
    }

    Text add(std::string_view text) { return &*m_texts.emplace(text).first; }

    // The chain that a rule jumps to, or nothing.
    Text jumpOf(const ebtables::Rule& rule)
    {
        return ebtables::isStandardTarget(rule.target) ? nullptr : add(rule.target);
    }

    std::size_t size() const { return m_texts.size(); }

    // Forgets all texts but those of which isUsed(Text) is true.
    void sweep(const auto& isUsed)
    {
        ++m_sweeps;
        std::erase_if(m_texts, [&](const std::string& text) { return !isUsed(&text); });
    }

    // As long as this stays, two texts are the same if, and only if, they are in the same place.
    std::size_t sweeps() const { return m_sweeps; }

private:
    std::unordered_set<std::string> m_texts;
    std::size_t m_sweeps = 0;
    std::string m_scratch;
};

} // namespace zol::cfg
