// Tables of the configuration as sheets for the output.
#pragma once

#include "moatctl/command_line/output.hpp"
#include "moatctl/tables/configuration.hpp"

namespace moatctl
{

// The rows of a table in the kernel's order. As a table for people without a column that says nothing in any row, and
// with "-" for what is not set; otherwise with the server's names and values.
Sheet sheetOf(const Configuration& configuration, TableId table, Format format);

} // namespace moatctl
