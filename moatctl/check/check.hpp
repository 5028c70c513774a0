// Finds what is wrong with a configuration before the daemon and the kernel's tool find it.
#pragma once

#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/interface.hpp"
#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace moatctl
{

struct CheckOptions {
    // Of interfaces that rows name; empty: not looked at.
    std::function<InterfaceState(const std::string& name)> interfaceState;
    // Called now and then with how much of the work is done; may be empty.
    std::function<void(std::size_t done, std::size_t total)> onProgress;
};

// Errors: the daemon would pass a row over, or the tool would refuse a line of it, were the row enabled. Without
// errors, every line of the first commit is carried out. Warnings: the row works, but probably not as intended.
//
// In the order of tables, Ids and columns. Time: grows little more than in proportion to the rows.
std::vector<Problem> checkConfiguration(const Configuration& configuration, const CheckOptions& options = {});

// The same without progress, for who has worked out already what the daemon makes of the configuration.
std::vector<Problem> checkConfiguration(const Configuration& configuration, const Expected& expected,
                                        const Applied& applied, const CheckOptions& options);

// Of the rows that are enabled: errors, as above, and ports that this machine does not have, as warnings. Quicker than
// all of it.
std::vector<Problem> checkInForce(const Configuration& configuration, const Expected& expected, const Applied& applied,
                                  const CheckOptions& options = {});

} // namespace moatctl
