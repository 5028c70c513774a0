#include "moatctl/tables/rename_port.hpp"

#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/values.hpp"

#include <string_view>
#include <utility>

namespace moatctl
{

namespace
{

bool matchesPattern(std::string_view pattern, std::string_view port)
{
    return pattern.ends_with('+') && port.starts_with(pattern.substr(0, pattern.size() - 1));
}

void notePattern(std::vector<std::string>& notes, const Row& row, const schema::Column& column, const std::string& from,
                 const std::string& to)
{
    const std::string& value = row.text(column.name);
    const std::string_view pattern = withoutNot(value);
    const bool before = matchesPattern(pattern, from);
    if (before == matchesPattern(pattern, to))
        return;
    notes.push_back("note: " + nameOf(row) + ", " + std::string(column.name) + ": " + inQuotes(value) + " stays; it " +
                    (before ? "matches " + inQuotes(from) + ", but not " + inQuotes(to)
                            : "matches " + inQuotes(to) + ", but not " + inQuotes(from)));
}

} // namespace

std::size_t renamePort(Editor& editor, const std::string& from, const std::string& to)
{
    std::size_t changed = 0;
    std::vector<std::string> notes;
    for (const schema::Table& table : schema::allTables()) {
        std::vector<std::pair<Row, Row>> changes;
        for (const Row& row : editor.configuration.rows(table.id)) {
            Row renamed = row;
            for (const schema::Column& column : table.columns) {
                if (column.kind != ValueKind::Interface)
                    continue;
                const std::string& value = row.text(column.name);
                const std::string_view name = withoutNot(value);
                if (name == from)
                    renamed.set(column.name, value.substr(0, value.size() - name.size()) + to);
                else
                    notePattern(notes, row, column, from, to);
            }
            if (renamed != row)
                changes.emplace_back(row, std::move(renamed));
        }
        for (auto& [before, after] : changes) {
            editor.report(toText(Change{&table, after.id(), &before, &after}));
            *editor.configuration.find(table.id, after.id()) = std::move(after);
        }
        changed += changes.size();
    }
    for (std::string& note : notes) {
        if (changed != 0)
            editor.note(std::move(note));
    }
    return changed;
}

} // namespace moatctl
