#include "moatctl/bridge/cover_index.hpp"

namespace moatctl
{

using ebtables::Conjunction;
using ebtables::FixedBits;
using ebtables::hashWhere;

void CoverIndex::add(const Conjunction& conjunction, std::size_t number)
{
    const FixedBits fixed(conjunction);
    const auto [place, isNew] = m_places.emplace(fixed.mask, m_forms.size());
    if (isNew)
        m_forms.push_back({fixed.mask, {}});
    m_forms[place->second].byHash[hashWhere(fixed.mask, fixed.value)].push_back(number);
}

void CoverIndex::find(const Conjunction& inner, const std::function<void(std::span<const std::size_t>)>& onList) const
{
    const FixedBits fixed(inner);
    for (const Form& form : m_forms) {
        std::uint64_t open = 0; // bits that the form looks at and the conjunction leaves open
        for (std::size_t i = 0; i < form.mask.size(); ++i)
            open |= form.mask[i] & ~fixed.mask[i];
        if (open != 0)
            continue;
        const auto list = form.byHash.find(hashWhere(form.mask, fixed.value));
        if (list != form.byHash.end())
            onList(list->second);
    }
}

void CoverIndex::clear()
{
    m_forms.clear();
    m_places.clear();
}

} // namespace moatctl
