#include "moatctl/check/check.hpp"
#include "moatctl/command_line/given.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/verbs/all.hpp"

#include <utility>

namespace moatctl
{

namespace
{

// 0 for the table without Ids.
std::vector<std::int32_t> idsOf(const Given& given)
{
    const schema::Table& table = *findTable(given.value("TABLE"));
    if (table.hasIds() != given.has("ID"))
        throw Failure(ExitStatus::BadInput, table.hasIds() ? "ID is missing: expected the Ids of rows"
                                                           : "ID: expected none, the table has no Ids");
    return table.hasIds() ? given.ids("ID") : std::vector<std::int32_t>{0};
}

void acknowledge(const Given& given, Editor& editor)
{
    const schema::Table& table = *findTable(given.value("TABLE"));
    CheckOptions look;
    if (!editor.elsewhere)
        look.interfaceState = interfaceHere;
    const std::vector<Problem> problems = checkConfiguration(editor.configuration, look);
    auto& acknowledged = editor.configuration.acknowledged;
    for (const std::int32_t id : idsOf(given)) {
        const Row* row = editor.configuration.find(table.id, id);
        const std::string name = std::string(table.word) + (id != 0 ? " " + std::to_string(id) : "");
        if (row == nullptr)
            throw Failure(ExitStatus::Conflict, id != 0 ? "there is no " + name : "there is no row of global policies");
        editor.reliesOn(table.id, id);

        // What was acknowledged before and is said no more goes, if nothing else can be behind it.
        std::map<Acknowledged, ovsdb::Uuid> old;
        for (auto entry = acknowledged.begin(); entry != acknowledged.end();) {
            const bool ofRow = entry->first.table == table.id && entry->first.id == id;
            if (ofRow)
                old.insert(*entry);
            entry =
                ofRow && (given.has("--withdraw") || !editor.elsewhere) ? acknowledged.erase(entry) : std::next(entry);
        }
        if (given.has("--withdraw")) {
            for (const auto& [gone, uuid] : old)
                editor.report("withdrawn: " + toText(gone));
            continue;
        }
        bool any = false;
        for (const Problem& problem : problems) {
            if (problem.severity != Severity::Warning || problem.table != table.name || problem.id != id)
                continue;
            any = true;
            const Acknowledged entry{table.id, id, warningOf(problem)};
            const auto known = old.find(entry);
            acknowledged[entry] = known != old.end() ? known->second : ovsdb::Uuid();
            if (known == old.end())
                editor.report("acknowledged: " + toText(entry));
        }
        if (!any)
            throw Failure(ExitStatus::Conflict,
                          name + (editor.elsewhere ? " has no warning that is known without the machines' interfaces"
                                                   : " has no warning (see moatctl check)"));
    }
}

} // namespace

void addAcknowledge(const Command& root, Program& program)
{
    const Command command =
        root.add("acknowledge", "Acknowledge the warnings that check has for rows, so that it tells of them no more",
                 "acknowledge rule 3");
    command.option("TABLE", "", "global, policy, forward-policy, rule, filter or filter-rule")
        .required()
        .check(wrongTable);
    command.option("ID", "", "The rows").anyNumber();
    command.flag("--withdraw", "Take back what was acknowledged for the rows");
    command.onGiven([command, &program] {
        const Given given(command);
        idsOf(given);
        program.edit = [given](Editor& editor) { acknowledge(given, editor); };
    });
}

} // namespace moatctl
