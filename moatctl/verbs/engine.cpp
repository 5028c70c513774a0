#include "compiled/compile.hpp"
#include "compiled/mark.hpp"
#include "compiled/summary.hpp"
#include "moatctl/bridge/compiled_kernel.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/client.hpp"
#include "schema/device.hpp"

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

namespace moatctl
{

namespace
{

struct Shown {
    compiled::Program program;
    std::string what; // in words
};

// What the kernel holds, or else what would be made of the configuration.
Shown programToShow(Program& program)
{
    std::string reason;
    const bool elsewhere = isElsewhere(program);
    if (!elsewhere) {
        if (std::optional<nftables::HeldProgram> held = readCompiled(reason); held && held->table != 0)
            return {std::move(held->program), "the compiled form in the kernel"};
    }
    ovsdb::Client client = program.connect();
    const Configuration configuration = loadFromServer(client);
    ebtables::Table table = apply(expectedOf(configuration)).table;
    compiled::mark(table);
    std::optional<compiled::Program> made = compiled::compile(table);
    if (!made)
        throw Failure(ExitStatus::BadInput, "the configuration has rules that cannot be compiled");
    return {*std::move(made), elsewhere ? "what would be made of the configuration, which is that of other machines"
                                        : "what would be made of the configuration: the kernel has the plain form"};
}

ExitStatus show(Program& program, const OutputStyle& style)
{
    const Shown shown = programToShow(program);
    Sheet sheet{"engine", "Engine", {"CHAIN", "IN", "OUT", "MAPS", "ELEMENTS", "RULES", "STEPS"}, {}};
    using tessera::Value;
    const auto port = [](const std::string& name) { return Value(name.empty() ? std::string("other") : name); };
    for (const compiled::ClassSummary& each : compiled::summaryOf(shown.program))
        sheet.rows.push_back({Value(each.chain), port(each.in), port(each.out), std::uint64_t{each.maps},
                              std::uint64_t{each.elements}, std::uint64_t{each.rules}, std::uint64_t{each.steps}});
    if (style.format == Format::Table)
        program.out << shown.what << '\n';
    else
        for (std::string& heading : sheet.headings)
            std::ranges::transform(heading, heading.begin(),
                                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    writeSheets(program.out, {sheet}, style, program.terminal);
    return ExitStatus::Ok;
}

} // namespace

void addEngine(const Command& root, Program& program)
{
    const Command engine = root.add(
        "engine", "The form that the rules have in the kernel: a list, or compiled to few looks", "engine show");
    for (const auto& [name, help] :
         {std::pair(schema::plainEngine, "Let the kernel have the rules as a list, as ebtables shows it"),
          std::pair(schema::compiledEngine, "Let the kernel have few looks instead of many rules, where it can")}) {
        const std::string word(name);
        const Command command = engine.add(word, help, "engine " + word);
        command.onGiven([&program, word] {
            program.action = [&program, word] {
                return carryOutSetting(program, std::string(schema::changeEngine), tessera::Value(word),
                                       "engine: " + word);
            };
        });
    }
    auto style = std::make_shared<OutputStyle>();
    const Command shown = engine.add("show", "Show what is made of the rules, for each pair of ports", "engine show");
    addOutputOptions(shown, *style);
    shown.onGiven([&program, style] { program.action = [&program, style] { return show(program, *style); }; });
}

} // namespace moatctl
