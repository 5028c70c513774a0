// add, set, remove, enable, disable and list: the same for every table with Ids.
#pragma once

#include "moatctl/command_line/given.hpp"
#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/edit.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// An option that is a column.
struct ColumnOption {
    std::string name; // "--in"
    std::string column;
    std::string type; // "PORT"
};

struct TableVerb {
    TableId table;
    std::string description;
    std::vector<ColumnOption> options;
    std::string targetColumn; // the column of --accept and --drop; "" when there is none
    bool logs;                // whether there is --log

    std::string addExample; // what follows "moatctl rule add "
    std::string setExample;
    // Options of add and set beyond those of the columns.
    std::function<void(const Command& command)> describe{};
    // Fills in values that follow from the options given.
    std::function<void(const Given& given, Row& row)> complete{};
    // Gives the row its place among the others. A new row is not in the configuration yet; a present one stands there
    // unchanged.
    std::function<void(const Given& given, Editor& editor, Row& row, bool isNew)> arrange{};
    // Before a row is removed: throws, or removes what depends on it.
    std::function<void(const Command& command)> describeRemove{};
    std::function<void(const Given& given, Editor& editor, const Row& row)> beforeRemove{};
};

void addTableVerb(const Command& root, Program& program, const TableVerb& verb);

// The largest priority plus ten; ten for the first row.
std::int32_t nextPriority(const Configuration& configuration, TableId table, std::string_view column);

} // namespace moatctl
