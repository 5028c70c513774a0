#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/tables/values.hpp"
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

void addGlobal(const Command& root, Program& program)
{
    const std::string example = "global set --input DROP --forward ACCEPT";
    const Command global = root.add("global", "Global policies: frames that nothing else decides", example);
    const Command set = global.add("set", "Change the global policies", example);
    set.option("--input", "ACCEPT|DROP", "Policy for frames to the device itself");
    set.option("--forward", "ACCEPT|DROP", "Policy for frames between ports");
    addChangeOptions(set, program);
    set.onGiven([set, &program] {
        const Given given(set);
        Row probe(schema::table(TableId::Global));
        takePolicies(given, probe); // what is wrong is told without the server
        program.edit = [given](Editor& editor) { setGlobal(given, editor); };
    });
}

} // namespace moatctl
