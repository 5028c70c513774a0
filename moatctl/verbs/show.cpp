#include "moatctl/command_line/sheets.hpp"
#include "moatctl/tables/kernel_order.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"

#include <memory>

namespace moatctl
{

namespace
{

struct ShowArguments {
    std::string table;
    OutputStyle style;
};

ExitStatus show(Program& program, const ShowArguments& options)
{
    ovsdb::Client client = program.connect();
    const Configuration configuration = loadFromServer(client);
    std::vector<Sheet> sheets;
    for (const TableId id : kernelTableOrder) {
        if (options.table.empty() || findTable(options.table)->id == id)
            sheets.push_back(sheetOf(configuration, id, options.style.format));
    }
    writeSheets(program.out, sheets, options.style, program.terminal);
    return ExitStatus::Ok;
}

} // namespace

void addShow(const Command& root, Program& program)
{
    auto options = std::make_shared<ShowArguments>();
    const Command command =
        root.add("show", "Show the tables in the order in which the kernel consults them", "show rule --format=csv");
    command
        .option(
            "TABLE", "",
            "global, policy, forward-policy, rule, filter, filter-rule or a table's name on the server (default: all "
            "tables)",
            options->table)
        .check(wrongTable);
    addOutputOptions(command, options->style);
    command.onGiven([&program, options] { program.action = [&program, options] { return show(program, *options); }; });
}

} // namespace moatctl
