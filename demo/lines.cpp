// Reads configurations from standard input and prints the command lines that the daemon queues for each.
//
// Input, a line each: "row<TAB>TABLE" begins a row, "COLUMN<TAB>VALUE" sets a column of it, "commit" closes the
// configuration. Output: the lines, then "done". The end of input is the daemon's stop: the lines of its clean-up.
#include "handler/moatkeeper.hpp"
#include "platform_fake/memory_tables.hpp"
#include "platform_fake/recording_queue.hpp"
#include "schema/tables.hpp"

#include <charconv>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using Rows = std::map<std::string_view, std::vector<fake::Row>>;

fake::Row unsetRow(const schema::Table& table)
{
    fake::Row row;
    for (const schema::Column& column : table.columns) {
        row.set(column.name, column.defaultValue());
    }
    return row;
}

bool setColumn(const schema::Table& table, fake::Row& row, std::string_view name, const std::string& text)
{
    const auto index = table.find(name);
    if (!index) {
        return false;
    }
    if (table.columns[*index].isText()) {
        row.set(name, text);
        return true;
    }
    std::int32_t number = 0;
    const char* const end = text.data() + text.size();
    if (std::from_chars(text.data(), end, number).ptr != end) {
        return false;
    }
    row.set(name, number);
    return true;
}

void printLines(fake::RecordingQueue& queue)
{
    for (const fake::QueueCall& call : queue.takeCalls()) {
        if (!call.line.empty()) {
            std::cout << call.line << '\n';
        }
    }
}

void commit(zol::moatkeeper::moatkeeper& handler, fake::MemoryTables& tables, fake::RecordingQueue& queue, Rows& rows)
{
    for (const schema::Table& table : schema::allTables()) {
        tables.setRows(std::string(table.name), std::move(rows[table.name]));
    }
    rows.clear();
    handler.loadFromConfig(tables, "");
    handler.commitToSystem(tables, &queue);
    printLines(queue);
    std::cout << "done" << std::endl;
}

int complain(const std::string& line)
{
    std::cerr << "moatkeeper_lines: '" << line << "': expected a row, a column and its value, or commit\n";
    return 1;
}

} // namespace

int main()
{
    fake::MemoryTables tables;
    fake::RecordingQueue queue;
    auto handler = std::make_unique<zol::moatkeeper::moatkeeper>();
    Rows rows;
    const schema::Table* table = nullptr;
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t tab = line.find('\t');
        const std::string word = line.substr(0, tab);
        if (tab == std::string::npos && word == "commit") {
            commit(*handler, tables, queue, rows);
            table = nullptr;
        } else if (tab != std::string::npos && word == "row") {
            table = schema::findTable(line.substr(tab + 1));
            if (table == nullptr) {
                return complain(line);
            }
            rows[table->name].push_back(unsetRow(*table));
        } else if (tab == std::string::npos || table == nullptr ||
                   !setColumn(*table, rows[table->name].back(), word, line.substr(tab + 1))) {
            return complain(line);
        }
    }
    handler.reset();
    printLines(queue);
    return 0;
}
