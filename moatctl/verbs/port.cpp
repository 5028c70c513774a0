#include "ebtables/operands.hpp"
#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/given.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/rename_port.hpp"
#include "moatctl/verbs/all.hpp"

namespace moatctl
{

namespace
{

const std::string& portName(const Given& given, const std::string& option)
{
    const std::string& name = given.value(option);
    const auto match = ebtables::parseInterface(name);
    if (!match || match->prefix)
        throw Failure(ExitStatus::BadInput,
                      option + ' ' + inQuotes(name) + ": expected the name of one port, of at most 15 characters");
    return name;
}

void rename(const Given& given, Editor& editor)
{
    const std::string& from = given.value("OLD");
    if (renamePort(editor, from, given.value("NEW")) == 0 && !given.has("--if-exists"))
        throw Failure(ExitStatus::Conflict, "no row names the port " + inQuotes(from));
}

} // namespace

void addPort(const Command& root, Program& program)
{
    const std::string example = "port rename eth3 guest";
    const Command port = root.add("port", "Ports: the names that the rows of all tables have for them", example);
    const Command command =
        port.add("rename", "Put the new name of a port in all rows of all tables that have the old one", example);
    command.option("OLD", "PORT", "The name that the port had").required();
    command.option("NEW", "PORT", "The name that it has now").required();
    command.flag("--if-exists", "Do nothing if no row names the port");
    addChangeOptions(command, program);
    command.onGiven([command, &program] {
        const Given given(command);
        if (portName(given, "OLD") == portName(given, "NEW"))
            throw Failure(ExitStatus::BadInput,
                          "NEW " + inQuotes(given.value("NEW")) + ": expected another name than OLD");
        program.edit = [given](Editor& editor) { rename(given, editor); };
    });
}

} // namespace moatctl
