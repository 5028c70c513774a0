// Which names a handler is called with when several tables have changed.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace zol::cfg
{

// The changed tables in the order of `subscribed`. Each is read on its own but for the two of the bridge filters: one
// call reads both, and a second read before the commit would find nothing changed. They have one name, the first.
std::vector<std::string> deliveryNames(const std::vector<std::string>& subscribed,
                                       const std::set<std::string>& changed);

} // namespace zol::cfg
