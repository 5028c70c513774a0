// What is wrong with a single row: the same for a row of a file, of the server, and one that is being edited.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <vector>

namespace moatctl
{

// Errors: values that are none of their kind, that exclude each other (a port without a protocol, an address of another
// family than the ethertype), or that are not what the row's filter asks for. Warnings: values without effect. The row
// need not be in the configuration.
std::vector<Problem> checkRow(const Configuration& configuration, const Row& row);

} // namespace moatctl
