// Which rows a device has not put in force, by what it says itself.
#pragma once

#include "moatctl/bridge/expected.hpp"
#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/devices.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/problem.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace moatctl
{

struct RowNotInForce {
    Problem problem;  // the row and the reason; no row: about lines that are none's
    std::string line; // the one that was refused; empty: the daemon makes none of the row
};

// Enabled rows that the daemon cannot use, and rows of which the device names a line. An entry of a filter that is
// disabled is as it is meant to be. In the order of the tables and Ids. Time: in proportion to the rows.
std::vector<RowNotInForce> rowsNotInForce(const Configuration& configuration, const std::vector<DeviceLine>& lines);
std::vector<RowNotInForce> rowsNotInForce(const Configuration& configuration, const Expected& expected,
                                          const std::vector<DeviceLine>& lines);

// Of these, on this device, the rows of the change and those that were in force before it, as far as that is known.
std::vector<RowNotInForce> ofChange(std::vector<RowNotInForce> rows, const Stored& stored,
                                    const std::string& deviceName);

// A row counts once, however many of its lines were refused.
std::size_t countRows(const std::vector<RowNotInForce>& rows);

// "MoatKeeperRuleset Id 5: ebtables -A ...: reason"
std::string toText(const RowNotInForce& row);

} // namespace moatctl
