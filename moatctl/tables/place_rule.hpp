// Puts a rule directly before or after another one, by priorities.
#pragma once

#include "moatctl/tables/edit.hpp"

namespace moatctl
{

// Gives `row`, a rule that is new or is to move, a priority between the anchor and its neighbour on that side. Where
// there is no room, the rules after the place get larger priorities, as few of them as it takes; 0 is left out, since
// the daemon refuses it. Throws Failure(Conflict) when there is no anchor, when it is the rule itself, or when the
// priorities are used up.
void placeBeside(Editor& editor, Row& row, std::int32_t anchorId, bool before);

} // namespace moatctl
