#include "compiled/pages.hpp"

#include "compiled/form.hpp"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <unordered_set>

namespace compiled
{

namespace
{

constexpr std::size_t fewRules = 64;
constexpr unsigned pageBits = 5; // 32 rules on average

bool mayBegin(ebtables::Origin mark)
{
    return mark != ebtables::noOrigin && mark * 0x9e3779b97f4a7c15U >> (64 - pageBits) == 0;
}

std::string nameFor(ebtables::Origin mark)
{
    return "page-" + shortNameFor(std::to_string(mark));
}

} // namespace

std::vector<Page> pagesOf(KnownRules rules)
{
    std::vector<Page> pages;
    if (rules.size() < fewRules || std::ranges::any_of(rules, &Known::returns))
        return pages;
    std::unordered_set<ebtables::Origin> begun; // the same rule may be there twice
    std::size_t first = 0;
    for (std::size_t i = 1; i <= rules.size(); ++i) {
        if (i < rules.size() && !(mayBegin(rules[i]->item.origin) && begun.insert(rules[i]->item.origin).second))
            continue;
        pages.push_back({first == 0 ? "page" : nameFor(rules[first]->item.origin), rules.subspan(first, i - first)});
        first = i;
    }
    return pages;
}

} // namespace compiled
