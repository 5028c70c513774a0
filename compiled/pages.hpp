// Seventh step: long lists of rules as they stand, in pages. Such a list is a chain, and a chain that changes is
// written anew: so a change touches one page of it.
#pragma once

#include "compiled/known.hpp"

#include <string>
#include <vector>

namespace compiled
{

struct Page {
    std::string name; // for its first rule
    KnownRules rules;
};

// All of the rules, or none where they are few, or one of them returns: from a page, which is jumped to, it would come
// back to the next. A rule's own mark says whether a page begins with it, so other rules' coming and going does not
// move the borders:
//
//   marks  7 12* 5 9 40* 3    ->    pages  (7) (12 5 9) (40 3)
//   one more  8               ->           (7) (12 5 8 9) (40 3)
std::vector<Page> pagesOf(KnownRules rules);

} // namespace compiled
