#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/json.hpp"
#include "schema/server/database.hpp"

#include <ostream>

namespace moatctl
{

namespace
{

// A row on one line; columns at their defaults are left out, except those that a reader looks for.
std::string lineOf(const Row& row)
{
    ovsdb::Json::Object members;
    for (std::size_t i = 0; i < row.values.size(); ++i) {
        const schema::Column& column = row.table->columns[i];
        const tessera::Value& value = row.values[i];
        const bool always = column.required || column.name == "Enabled" || !row.table->hasIds();
        if (!always && value == column.defaultValue())
            continue;
        members.emplace_back(column.name, value.isText() ? ovsdb::Json(value.getText())
                                                         : ovsdb::Json(std::int64_t{value.getInteger()}));
    }
    return ovsdb::toText(ovsdb::Json(std::move(members)));
}

void writeAcknowledged(std::ostream& out, const Configuration& configuration)
{
    out << "  \"" << schema::acknowledgedTable << "\": [";
    const char* before = "\n    ";
    for (const auto& [acknowledged, uuid] : configuration.acknowledged) {
        out << before
            << ovsdb::toText(ovsdb::Json::Object{{"Table", schema::table(acknowledged.table).name},
                                                 {"Row", std::int64_t{acknowledged.id}},
                                                 {"Warning", acknowledged.warning}});
        before = ",\n    ";
    }
    out << "\n  ]\n";
}

ExitStatus exportAll(Program& program)
{
    ovsdb::Client client = program.connect();
    const Configuration configuration = loadFromServer(client);
    program.out << "{\n";
    for (const schema::Table& table : schema::allTables()) {
        program.out << "  \"" << table.name << "\": [";
        const std::vector<Row>& rows = configuration.rows(table.id);
        for (const Row& row : rows)
            program.out << (&row == &rows.front() ? "\n    " : ",\n    ") << lineOf(row);
        const bool last = &table == &schema::allTables().back() && configuration.acknowledged.empty();
        program.out << (rows.empty() ? "]" : "\n  ]") << (last ? "\n" : ",\n");
    }
    if (!configuration.acknowledged.empty())
        writeAcknowledged(program.out, configuration);
    program.out << "}\n";
    return ExitStatus::Ok;
}

} // namespace

void addExport(const Command& root, Program& program)
{
    const Command command =
        root.add("export", "Write all tables as one JSON file to standard output", "export > configuration.json");
    command.onGiven([&program] { program.action = [&program] { return exportAll(program); }; });
}

} // namespace moatctl
