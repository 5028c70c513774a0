#include "moatctl/values.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/table_verb.hpp"

namespace moatctl
{

namespace
{

void takePolicies(const Given& given, Row& row)
{
    if (!given.has("--input") && !given.has("--forward"))
        throw Failure(ExitStatus::BadInput, "expected --input or --forward");
    const auto take = [&](const std::string& option, const char* column) {
        const std::size_t index = row.table->at(column);
        if (given.has(option))
            row.values[index] = fromPerson(row.table->columns[index], given.value(option), option);
    };
    take("--input", "GlobalInputPolicy");
    take("--forward", "GlobalForwardingPolicy");
}

void setGlobal(const Given& given, Editor& editor)
{
    if (editor.configuration.find(TableId::Global, 0) == nullptr)
        editor.configuration.add(Row(schema::table(TableId::Global)));
    takePolicies(given, *editor.configuration.find(TableId::Global, 0));
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
    set->callback([set, &program] {
        const Given given(*set);
        Row probe(schema::table(TableId::Global));
        takePolicies(given, probe); // what is wrong is told without the server
        program.edit = [given](Editor& editor) { setGlobal(given, editor); };
    });
}

} // namespace moatctl
