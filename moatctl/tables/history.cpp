#include "moatctl/tables/history.hpp"

#include "moatctl/exit_status.hpp"
#include "ovsdb/client.hpp"
#include "schema/history.hpp"
#include "schema/server/database.hpp"
#include "schema/server/row_sum.hpp"
#include "text/one_line.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <chrono>
#include <limits>
#include <set>
#include <utility>

namespace moatctl
{

namespace
{

namespace history = schema::history;
using Values = std::vector<tessera::Value>;
using schema::RecordedChange;

Acknowledged acknowledgedOf(const Values& values)
{
    const schema::Table* table = schema::findTable(values[0].getText());
    if (table == nullptr)
        throw Failure(ExitStatus::Server, "the history is not as it should be: a warning names no table");
    return {table->id, values[1].getInteger(), values[2].getText()};
}

Values valuesOf(const Acknowledged& acknowledged)
{
    return {tessera::Value(std::string(schema::table(acknowledged.table).name)), tessera::Value(acknowledged.id),
            tessera::Value(acknowledged.warning)};
}

Row rowOf(const schema::Table& table, const Values& values)
{
    Row row(table);
    row.values = values;
    return row;
}

[[noreturn]] void refuse(const HistoryEntry& entry, const std::string& what)
{
    throw Failure(ExitStatus::Conflict, "change " + std::to_string(entry.number) + " cannot be undone: " + what +
                                            " was changed again since; nothing was changed");
}

void takeBackRow(const HistoryEntry& entry, const schema::Table& table, const RecordedChange& change,
                 Configuration& configuration)
{
    const Row known = rowOf(table, change.before ? *change.before : *change.after);
    Row* present = configuration.find(table.id, known.id());
    if ((present != nullptr) != change.after.has_value() || (present != nullptr && present->values != *change.after))
        refuse(entry, nameOf(known));
    if (!change.before)
        configuration.remove(table.id, known.id());
    else if (present != nullptr)
        present->values = *change.before;
    else
        configuration.add(known);
}

void takeBackAcknowledged(const HistoryEntry& entry, const RecordedChange& change, Configuration& configuration)
{
    const Acknowledged known = acknowledgedOf(change.before ? *change.before : *change.after);
    const bool present = configuration.acknowledged.contains(known);
    if (present != change.after.has_value())
        refuse(entry, "what is acknowledged for " + toText(known));
    if (present)
        configuration.acknowledged.erase(known);
    else
        configuration.acknowledged.emplace(known, ovsdb::Uuid());
}

} // namespace

std::vector<HistoryEntry> readHistory(ovsdb::Client& client)
{
    if (std::ranges::find(client.tableNames(), schema::historyTable) == client.tableNames().end())
        throw Failure(ExitStatus::Server, "the server's database, schema " + client.schemaVersion() +
                                              ", has no place for a history: expected schema 1.1 or later");
    const ovsdb::TableCache state = client.read({std::string(schema::historyTable)});
    const ovsdb::Table& table = *state.find(schema::historyTable);
    std::vector<HistoryEntry> entries;
    for (const ovsdb::Row& row : state.rows(schema::historyTable)) {
        const auto value = [&](std::string_view column) { return *ovsdb::TableCache::value(table, row, column); };
        entries.push_back({.number = value(history::number).getInteger(),
                           .time = value(history::time).getText(),
                           .user = value(history::user).getText(),
                           .address = value(history::address).getText(),
                           .host = value(history::host).getText(),
                           .verb = value(history::verb).getText(),
                           .rows = value(history::rows).getInteger(),
                           .changes = value(history::changes).getText(),
                           .undoes = value(history::undoes).getInteger()});
    }
    std::ranges::sort(entries, std::greater(), &HistoryEntry::number);
    return entries;
}

const HistoryEntry* nextToUndo(const std::vector<HistoryEntry>& newestFirst)
{
    std::set<std::int32_t> undone;
    for (const HistoryEntry& entry : newestFirst) {
        if (undone.contains(entry.number))
            continue;
        if (entry.undoes == 0)
            return &entry;
        undone.insert(entry.undoes);
    }
    return nullptr;
}

std::vector<RecordedChange> changesOf(const HistoryEntry& entry)
{
    if (entry.changes.empty() && entry.rows == 0)
        throw Failure(ExitStatus::Conflict, "change " + std::to_string(entry.number) +
                                                " cannot be undone: nobody saw which rows changed "
                                                "(moatctl undo NUMBER takes another change back)");
    if (entry.changes.empty())
        throw Failure(ExitStatus::Conflict, "change " + std::to_string(entry.number) + " of " +
                                                std::to_string(entry.rows) +
                                                " rows was too large for its rows to be kept in the history");
    return schema::parseRecordedChanges(entry.changes);
}

std::string toText(const RecordedChange& change)
{
    const schema::Table* table = schema::findTable(change.table->name);
    if (table == nullptr)
        return std::string(change.after ? "+" : "-") +
               " acknowledged: " + toText(acknowledgedOf(change.after ? *change.after : *change.before));
    const auto row = [table](const std::optional<Values>& values) {
        return values ? std::optional(rowOf(*table, *values)) : std::nullopt;
    };
    const std::optional<Row> before = row(change.before);
    const std::optional<Row> after = row(change.after);
    return toText(Change{.table = table,
                         .id = (before ? before : after)->id(),
                         .before = before ? &*before : nullptr,
                         .after = after ? &*after : nullptr});
}

void takeBack(const HistoryEntry& entry, Editor& editor)
{
    for (const RecordedChange& change : changesOf(entry)) {
        if (const schema::Table* table = schema::findTable(change.table->name))
            takeBackRow(entry, *table, change, editor.configuration);
        else
            takeBackAcknowledged(entry, change, editor.configuration);
    }
}

void putBack(const RecordedChange& change, Configuration& configuration)
{
    const schema::Table* table = schema::findTable(change.table->name);
    const Values& known = change.before ? *change.before : *change.after;
    if (table == nullptr) {
        configuration.acknowledged.erase(acknowledgedOf(known));
        if (change.before)
            configuration.acknowledged.emplace(acknowledgedOf(known), ovsdb::Uuid());
        return;
    }
    configuration.remove(table->id, rowOf(*table, known).id());
    if (change.before)
        configuration.add(rowOf(*table, known));
}

std::vector<RecordedChange> recordedChanges(const std::vector<Change>& changes, const Configuration& before,
                                            const Configuration& after)
{
    std::vector<RecordedChange> recorded;
    const auto values = [](const Row* row) { return row != nullptr ? std::optional(row->values) : std::nullopt; };
    for (const Change& change : changes)
        recorded.push_back(
            {&schema::serverDatabase().at(change.table->name), values(change.before), values(change.after)});
    const ovsdb::Table& acknowledged = schema::serverDatabase().at(schema::acknowledgedTable);
    for (const auto& [gone, uuid] : before.acknowledged) {
        if (!after.acknowledged.contains(gone))
            recorded.push_back({&acknowledged, valuesOf(gone), std::nullopt});
    }
    for (const auto& [fresh, uuid] : after.acknowledged) {
        if (!before.acknowledged.contains(fresh))
            recorded.push_back({&acknowledged, std::nullopt, valuesOf(fresh)});
    }
    return recorded;
}

std::string toText(const schema::Trial& trial)
{
    const auto left = std::chrono::ceil<std::chrono::seconds>(schema::remaining(trial, schema::readClocks()));
    return "change " + std::to_string(trial.change) + " (" + text::oneLine(trial.verb) + ") of " +
           text::oneLine(trial.user) + " waits to be confirmed, " + std::to_string(left.count()) + " s left";
}

namespace
{

// One trial at a time, and nothing else meanwhile: what goes back is then what everybody sees.
void planTrial(const ovsdb::TableCache& state, const Occasion& occasion, std::int32_t number,
               const std::string& changes, std::vector<ovsdb::Json>& operations)
{
    if (!state.holds(schema::trialTable)) {
        if (occasion.trial != 0)
            throw Failure(ExitStatus::Server, "the server's database has no place for a change that waits to be "
                                              "confirmed: expected schema 1.1 or later; nothing was changed");
        return;
    }
    if (const auto waits = schema::trialOf(state))
        throw Failure(ExitStatus::Conflict,
                      toText(*waits) + " (moatctl confirm, or moatctl cancel); nothing was changed");
    operations.push_back(schema::requireNoTrial());
    if (occasion.trial == 0)
        return;
    if (changes.empty())
        throw Failure(ExitStatus::BadInput, "--confirm: the change is too large to go back; nothing was changed");
    operations.push_back(schema::beginTrial(
        {.change = number, .seconds = occasion.trial, .user = occasion.user, .verb = occasion.verb, .changes = changes},
        schema::readClocks()));
}

} // namespace

ovsdb::ColumnValues entryOf(const Occasion& occasion)
{
    ovsdb::ColumnValues entry;
    const auto add = [&entry](std::string_view column, std::string text) {
        entry.emplace_back(std::string(column), tessera::Value(std::move(text)));
    };
    add(history::time, text::utcTime(std::chrono::system_clock::now()));
    add(history::user, occasion.user);
    add(history::address, occasion.address);
    add(history::host, occasion.host);
    add(history::verb, occasion.verb);
    return entry;
}

std::vector<ovsdb::Json> addToHistory(const ovsdb::TableCache& state, const Occasion& occasion,
                                      const std::vector<RecordedChange>& changes,
                                      const std::optional<ovsdb::Uuid>& name)
{
    const std::int32_t newest = schema::newestEntry(state).number;
    if (newest >= std::numeric_limits<std::int32_t>::max() - 1) // a trial takes two
        throw Failure(ExitStatus::Conflict, "the history has no larger number left: delete its newest entry");
    std::string text = schema::toText(changes);
    if (text.size() > schema::maximumChanges)
        text.clear();
    std::vector<ovsdb::Json> operations;
    planTrial(state, occasion, newest + 1, text, operations);
    ovsdb::ColumnValues entry = entryOf(occasion);
    const auto add = [&entry](std::string_view column, auto value) {
        entry.emplace_back(std::string(column), tessera::Value(std::move(value)));
    };
    add(history::number, newest + 1);
    add(history::rows, static_cast<std::int32_t>(changes.size()));
    add(history::changes, std::move(text));
    add(history::undoes, occasion.undoes);
    add(history::sum, schema::sumText(schema::sumAfter(state, changes)));
    operations.push_back(name ? ovsdb::insertRow(schema::historyTable, entry, *name)
                              : ovsdb::insertRow(schema::historyTable, entry));
    if (newest >= schema::maximumHistory)
        operations.push_back(ovsdb::deleteRows(schema::historyTable,
                                               ovsdb::rowsUpTo(history::number, newest + 1 - schema::maximumHistory)));
    return operations;
}

} // namespace moatctl
