#include "moatctl/table_verb.hpp"
#include "moatctl/values.hpp"
#include "moatctl/verbs.hpp"

namespace moatctl
{

namespace
{

void setGlobal(const Given& given, Editor& editor)
{
    const TableInfo& table = tableInfo(TableId::Global);
    if (editor.configuration.find(TableId::Global, 0) == nullptr)
        editor.configuration.add(Row(table));
    Row& row = *editor.configuration.find(TableId::Global, 0);
    const auto take = [&](const std::string& option, const char* column) {
        if (given.has(option))
            row.values[table.at(column)] = fromPerson(table.columns[table.at(column)], given.value(option), option);
    };
    if (!given.has("--input") && !given.has("--forward"))
        throw Failure(ExitStatus::BadInput, "expected --input or --forward");
    take("--input", "GlobalInputPolicy");
    take("--forward", "GlobalForwardingPolicy");
}

} // namespace

void addGlobal(CLI::App& root, Program& program)
{
    const std::string example = "global set --input DROP --forward ACCEPT";
    CLI::App* global = addSubcommand(root, "global", "Global policies: frames that nothing else decides", example);
    global->require_subcommand(1);
    CLI::App* set = addSubcommand(*global, "set", "Change the global policies", example);
    addValueOption(*set, "--input", "ACCEPT|DROP", "For frames to the device itself");
    addValueOption(*set, "--forward", "ACCEPT|DROP", "For frames between ports");
    set->callback(
        [set, &program] { program.edit = [given = Given(*set)](Editor& editor) { setGlobal(given, editor); }; });
}

} // namespace moatctl
