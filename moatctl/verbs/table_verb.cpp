#include "moatctl/verbs/table_verb.hpp"

#include "moatctl/check/row.hpp"
#include "moatctl/command_line/carry_out.hpp"
#include "moatctl/command_line/sheets.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/tables/values.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <set>

namespace moatctl
{

namespace
{

using Shared = std::shared_ptr<const TableVerb>;

std::string nameOfRow(const TableVerb& verb, std::int32_t id)
{
    return std::string(schema::table(verb.table).word) + ' ' + std::to_string(id);
}

Failure notFound(const TableVerb& verb, std::int32_t id)
{
    return {ExitStatus::Conflict, "there is no " + nameOfRow(verb, id)};
}

// "--no-out" for "--out".
std::string clearing(const ColumnOption& option)
{
    return "--no-" + option.name.substr(2);
}

void takeColumns(const TableVerb& verb, const Given& given, Row& row)
{
    const schema::Table& table = *row.table;
    for (const ColumnOption& option : verb.options) {
        const std::size_t column = table.at(option.column);
        if (given.has(option.name))
            row.values[column] = fromPerson(table.columns[column], given.value(option.name), option.name);
        else if (given.has(clearing(option)))
            row.values[column] = table.columns[column].defaultValue();
    }
    if (given.has("--accept") || given.has("--drop"))
        row.set(verb.targetColumn, std::string(given.has("--accept") ? "ACCEPT" : "DROP"));
    if (given.has("--log") || given.has("--no-log"))
        row.set("EnableLogging", given.has("--log") ? 1 : 0);
    if (given.has("--enabled") || given.has("--disabled"))
        row.set("Enabled", given.has("--enabled") ? 1 : 0);
}

// With the names of options, where a check of the row would name columns.
void requireOptions(const TableVerb& verb, const Row& row)
{
    const auto missing = [&](std::string_view column) { return row.text(column).empty(); };
    for (const ColumnOption& option : verb.options) {
        const schema::Column& column = row.table->columns[row.table->at(option.column)];
        const tessera::Value& value = row.value(option.column);
        if (column.required && (value.isText() ? value.getText().empty() : value.getInteger() == 0))
            throw Failure(ExitStatus::BadInput,
                          option.name + " is missing: expected " + std::string(schema::expectedValue(column.kind)));
    }
    if (!verb.targetColumn.empty() && missing(verb.targetColumn))
        throw Failure(ExitStatus::BadInput, "expected --accept or --drop");
}

std::string priorityColumn(const TableVerb& verb)
{
    const auto it = std::ranges::find(verb.options, "--priority", &ColumnOption::name);
    return it != verb.options.end() ? it->column : "";
}

// Throws Failure(BadInput) with the first thing that is wrong with the row, and was not before.
void requireGood(const TableVerb& verb, const Configuration& configuration, const Row& row, const Row* before = nullptr)
{
    std::vector<Problem> problems = checkRow(configuration, row);
    if (before != nullptr) {
        const std::vector<Problem> known = checkRow(configuration, *before);
        std::erase_if(problems,
                      [&known](const Problem& problem) { return std::ranges::find(known, problem) != known.end(); });
    }
    if (problems.empty())
        return;
    const auto option = std::ranges::find(verb.options, problems.front().column, &ColumnOption::column);
    throw Failure(ExitStatus::BadInput, (option != verb.options.end() ? option->name : problems.front().column) + ' ' +
                                            problems.front().text);
}

// A row that does the same: equal but for the Id, and for a priority that was not asked for.
const Row* findEqual(const Configuration& configuration, Row row, const std::string& priority)
{
    const std::vector<Row>& rows = configuration.rows(row.table->id);
    const auto it = std::ranges::find_if(rows, [&](const Row& other) {
        row.values.front() = other.values.front();
        if (!priority.empty())
            row.set(priority, other.integer(priority));
        return row == other;
    });
    return it != rows.end() ? &*it : nullptr;
}

// What can be found wrong without a look at the server.

void checkIds(const Given& given)
{
    for (const char* option : {"ID", "--id", "--before", "--after"}) {
        if (given.has(option))
            given.ids(option);
    }
}

void checkAdd(const TableVerb& verb, const Given& given, bool force)
{
    checkIds(given);
    Row row(schema::table(verb.table));
    // These are found later when they are not given.
    row.set("Id", 1);
    if (const std::string priority = priorityColumn(verb); !priority.empty())
        row.set(priority, 1);
    takeColumns(verb, given, row);
    if (verb.complete)
        verb.complete(given, row);
    requireOptions(verb, row);
    if (verb.table != TableId::FilterRules && !force) // these depend on their filter
        requireGood(verb, {}, row);
}

void checkSet(const TableVerb& verb, const Given& given, bool)
{
    checkIds(given);
    if (!given.hasOtherThan({"ID", "--if-exists", "--force", "--confirm"}))
        throw Failure(ExitStatus::BadInput, "nothing to change: expected an option (see moatctl " +
                                                std::string(schema::table(verb.table).word) + " set --help)");
    Row row(schema::table(verb.table));
    takeColumns(verb, given, row);
    if (verb.complete)
        verb.complete(given, row);
}

void checkRows(const TableVerb&, const Given& given, bool)
{
    std::set<std::int32_t> seen;
    for (const std::int32_t id : given.ids("ID")) {
        if (!seen.insert(id).second)
            throw Failure(ExitStatus::BadInput, "ID " + std::to_string(id) + " is repeated: expected each Id once");
    }
}

void addRow(const TableVerb& verb, const Given& given, Editor& editor)
{
    Configuration& configuration = editor.configuration;
    Row row(schema::table(verb.table));
    row.set("Id", given.has("--id") ? given.id("--id") : configuration.nextId(verb.table));
    if (row.id() == 0)
        throw Failure(ExitStatus::Conflict, "there is no larger Id: choose one with --id");
    takeColumns(verb, given, row);
    if (verb.complete)
        verb.complete(given, row);
    if (given.has("--may-exist")) {
        const Row* equal = findEqual(configuration, row, given.has("--priority") ? "" : priorityColumn(verb));
        if (equal != nullptr && (!given.has("--id") || equal->id() == row.id())) {
            editor.reliesOn(verb.table, equal->id());
            editor.report(std::to_string(equal->id()));
            return;
        }
    }
    if (verb.arrange)
        verb.arrange(given, editor, row, true);
    if (!editor.force)
        requireGood(verb, configuration, row);
    const std::int32_t id = row.id();
    if (!configuration.add(std::move(row)))
        throw Failure(ExitStatus::Conflict, nameOfRow(verb, id) + " exists already" +
                                                (given.has("--may-exist") ? ", with other values" : ""));
    editor.report(std::to_string(id));
}

void setRow(const TableVerb& verb, const Given& given, Editor& editor)
{
    const std::int32_t id = given.id("ID");
    const Row* present = editor.configuration.find(verb.table, id);
    if (present == nullptr && given.has("--if-exists"))
        return;
    if (present == nullptr)
        throw notFound(verb, id);
    Row row = *present;
    takeColumns(verb, given, row);
    if (verb.complete)
        verb.complete(given, row);
    if (verb.arrange)
        verb.arrange(given, editor, row, false);
    Row& held = *editor.configuration.find(verb.table, id);
    if (!editor.force)
        requireGood(verb, editor.configuration, row, &held);
    held = std::move(row);
}

void removeRows(const TableVerb& verb, const Given& given, Editor& editor)
{
    for (const std::int32_t id : given.ids("ID")) {
        const Row* row = editor.configuration.find(verb.table, id);
        if (row == nullptr && given.has("--if-exists"))
            continue;
        if (row == nullptr)
            throw notFound(verb, id);
        if (verb.beforeRemove)
            verb.beforeRemove(given, editor, *row);
        editor.configuration.remove(verb.table, id);
    }
}

void switchRows(const TableVerb& verb, const Given& given, Editor& editor, bool on)
{
    for (const std::int32_t id : given.ids("ID")) {
        Row* row = editor.configuration.find(verb.table, id);
        if (row != nullptr)
            row->set("Enabled", on ? 1 : 0);
        else if (!given.has("--if-exists"))
            throw notFound(verb, id);
    }
}

void describeColumns(const Command& command, const TableVerb& verb)
{
    const schema::Table& table = schema::table(verb.table);
    for (const ColumnOption& option : verb.options) {
        const schema::Column& column = table.columns[table.at(option.column)];
        command.option(option.name, option.type,
                       std::string(column.meaning) + ": " + std::string(schema::expectedValue(column.kind)));
    }
    if (!verb.targetColumn.empty()) {
        const Option accept = command.flag("--accept", "Let the frame pass");
        command.flag("--drop", "Drop the frame").excludes(accept);
    }
    if (verb.logs) {
        const Option log = command.flag("--log", "Log matching frames");
        command.flag("--no-log", "Do not log matching frames").excludes(log);
    }
    const Option enabled = command.flag("--enabled", "Enable the row (default for a new one)");
    command.flag("--disabled", "Disable the row, but keep it").excludes(enabled);
}

void describeClearing(const Command& set, const TableVerb& verb)
{
    const schema::Table& table = schema::table(verb.table);
    for (const ColumnOption& option : verb.options) {
        if (!table.columns[table.at(option.column)].required)
            set.flag(clearing(option), "Remove what " + option.name + " has set").excludes(set.find(option.name));
    }
}

void onEdit(const Command& command, Program& program, const Shared& verb,
            void (*check)(const TableVerb&, const Given&, bool force),
            void (*change)(const TableVerb&, const Given&, Editor&))
{
    addChangeOptions(command, program);
    command.onGiven([command, &program, verb, check, change] {
        const Given given(command);
        check(*verb, given, program.force);
        program.edit = [verb, change, given](Editor& editor) { change(*verb, given, editor); };
    });
}

void addList(const Command& parent, Program& program, TableId table)
{
    auto style = std::make_shared<OutputStyle>();
    const std::string word(schema::table(table).word);
    const Command list = parent.add("list", "Show the rows in the order in which the kernel consults them",
                                    word + " list --format=json");
    addOutputOptions(list, *style);
    list.onGiven([&program, style, table] {
        program.action = [&program, style, table] {
            ovsdb::Client client = program.connect();
            const Configuration configuration = loadFromServer(client);
            writeSheets(program.out, {sheetOf(configuration, table, style->format)}, *style, program.terminal);
            return ExitStatus::Ok;
        };
    });
}

} // namespace

std::int32_t nextPriority(const Configuration& configuration, TableId table, std::string_view column)
{
    constexpr std::int32_t step = 10;
    const std::size_t index = schema::table(table).at(column);
    std::int32_t largest = 0;
    for (const Row& row : configuration.rows(table))
        largest = std::max(largest, row.values[index].getInteger());
    if (largest > std::numeric_limits<std::int32_t>::max() - step)
        throw Failure(ExitStatus::Conflict, "there is no larger priority: choose one with --priority");
    return largest + step;
}

void addTableVerb(const Command& root, Program& program, const TableVerb& description)
{
    const Shared verb = std::make_shared<const TableVerb>(description);
    const std::string word(schema::table(verb->table).word);
    const Command parent = root.add(word, verb->description, word + " add " + verb->addExample);

    const Command add = parent.add("add", "Add a row and print its Id", word + " add " + verb->addExample);
    add.option("--id", "ID", "Id of the row (default: one more than any that was used)");
    describeColumns(add, *verb);
    add.flag("--may-exist", "Do nothing if there is already a row that does the same");

    const Command set = parent.add("set", "Change columns of a row", word + " set " + verb->setExample);
    set.option("ID", "", "The row").required();
    describeColumns(set, *verb);
    describeClearing(set, *verb);

    const Command remove = parent.add("remove", "Remove rows", word + " remove 3 --if-exists");
    const Command enable = parent.add("enable", "Enable rows", word + " enable 3 4");
    const Command disable = parent.add("disable", "Disable rows, but keep them", word + " disable 3");
    for (const Command& command : {remove, enable, disable})
        command.option("ID", "", "The rows").required().anyNumber();
    for (const Command& command : {set, remove, enable, disable})
        command.flag("--if-exists", "Do nothing if there is no such row");
    if (verb->describe) {
        verb->describe(add);
        verb->describe(set);
    }
    if (verb->describeRemove)
        verb->describeRemove(remove);

    onEdit(add, program, verb, checkAdd, addRow);
    onEdit(set, program, verb, checkSet, setRow);
    onEdit(remove, program, verb, checkRows, removeRows);
    onEdit(enable, program, verb, checkRows,
           [](const auto& v, const auto& given, auto& editor) { switchRows(v, given, editor, true); });
    onEdit(disable, program, verb, checkRows,
           [](const auto& v, const auto& given, auto& editor) { switchRows(v, given, editor, false); });
    addList(parent, program, verb->table);
}

} // namespace moatctl
