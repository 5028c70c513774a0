// The order in which the kernel consults the rows, by the handler's own comparison.
#pragma once

#include "moatctl/tables/configuration.hpp"

#include <array>
#include <vector>

namespace moatctl
{

// Tables: bridge filters and their rules stand first in FORWARD, then come the rules, then the policies of the
// interfaces, and the global policies decide what is left.
inline constexpr std::array kernelTableOrder{TableId::Filters,       TableId::FilterRules,        TableId::Rules,
                                             TableId::InputPolicies, TableId::ForwardingPolicies, TableId::Global};

// The rows of a table, disabled ones at the place that they would have. Filters: the smallest priority first, of equal
// ones the larger Id, since the later one is put in front. Filter rules: filter by filter, those without a filter last.
// Rules: by priority, of equal ones the smaller Id. Others by Id. Valid as long as the configuration stays.
std::vector<const Row*> inKernelOrder(const Configuration& configuration, TableId table);

} // namespace moatctl
