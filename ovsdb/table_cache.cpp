#include "ovsdb/table_cache.hpp"

#include "ovsdb/error.hpp"
#include "ovsdb/table_update.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ovsdb
{

namespace
{

[[noreturn]] void refuse(const Table& table, const Uuid& uuid, const char* reason)
{
    throw ProtocolError("change of tables refused: table " + table.name + ", row \"" + uuid.toText() + "\": " + reason);
}

// By ascending Id. A server keeps Ids unique; the UUID decides if one does not.
class ById
{
public:
    explicit ById(const Table& table) : m_column(table.find("Id")) {}

    bool operator()(const Row& a, const Row& b) const
    {
        const std::int32_t idA = m_column ? a.values.integer(*m_column) : 0;
        const std::int32_t idB = m_column ? b.values.integer(*m_column) : 0;
        return idA != idB ? idA < idB : a.uuid < b.uuid;
    }

private:
    std::optional<std::size_t> m_column;
};

const Uuid& uuidOf(const RowChange& change)
{
    return change.row.uuid;
}

void refuseTwins(TableChanges& changes)
{
    std::ranges::sort(changes.rows, {}, uuidOf);
    const auto twin = std::ranges::adjacent_find(changes.rows, {}, uuidOf);
    if (twin != changes.rows.end())
        refuse(*changes.table, twin->row.uuid, "twice in one change");
}

const RowChange* changeOf(const std::vector<RowChange>& changes, const Uuid& uuid)
{
    const auto found = std::ranges::lower_bound(changes, uuid, {}, uuidOf);
    return found != changes.end() && found->row.uuid == uuid ? &*found : nullptr;
}

// Whether the changes, sorted by UUID, leave anything other than it is.
bool isDifferent(const std::vector<Row>& rows, const std::vector<RowChange>& changes)
{
    if (std::ranges::any_of(changes, [](const RowChange& c) { return c.kind != ChangeKind::Modify; }))
        return true;
    return std::ranges::any_of(rows, [&](const Row& row) {
        const RowChange* change = changeOf(changes, row.uuid);
        return change != nullptr && change->row != row;
    });
}

// Tells of what the changes, sorted by UUID, make of the rows.
void tell(const RowWatcher& watcher, const Table& table, const std::vector<Row>& rows,
          const std::vector<RowChange>& changes)
{
    for (const Row& row : rows) {
        const RowChange* change = changeOf(changes, row.uuid);
        if (change != nullptr && (change->kind == ChangeKind::Delete || change->row != row))
            watcher(table, &row, change->kind == ChangeKind::Delete ? nullptr : &change->row);
    }
    for (const RowChange& change : changes) {
        if (change.kind == ChangeKind::Insert)
            watcher(table, nullptr, &change.row);
    }
}

// Tells of the difference between two states of a table.
void tell(const RowWatcher& watcher, const Table& table, const std::vector<Row>& before, const std::vector<Row>& after)
{
    const ById byId(table);
    auto old = before.begin();
    auto fresh = after.begin();
    while (old != before.end() || fresh != after.end()) {
        const bool gone = fresh == after.end() || (old != before.end() && byId(*old, *fresh));
        const bool added = old == before.end() || (fresh != after.end() && byId(*fresh, *old));
        if (gone || added || *old != *fresh)
            watcher(table, added ? nullptr : &*old, gone ? nullptr : &*fresh);
        old += added ? 0 : 1;
        fresh += gone ? 0 : 1;
    }
}

} // namespace

TableCache::TableCache(const Database& database, const std::vector<std::string>& tableNames, std::size_t memoryLimit)
    : m_memoryLimit(memoryLimit)
{
    for (const std::string& name : tableNames) {
        if (find(name) == nullptr)
            m_tables.push_back({.table = &database.at(name), .rows = {}});
    }
}

const Table* TableCache::find(std::string_view tableName) const
{
    const auto held = std::ranges::find_if(m_tables, [&](const Held& h) { return h.table->name == tableName; });
    return held != m_tables.end() ? held->table : nullptr;
}

std::span<const Row> TableCache::rows(std::string_view tableName) const
{
    for (const Held& held : m_tables) {
        if (held.table->name == tableName)
            return held.rows;
    }
    return {};
}

std::optional<tessera::Value> TableCache::value(const Table& table, const Row& row, std::string_view columnName)
{
    const auto column = table.find(columnName);
    return column ? std::optional(row.values[*column]) : std::nullopt;
}

std::vector<std::string> TableCache::tableNames() const
{
    std::vector<std::string> names;
    for (const Held& held : m_tables)
        names.push_back(held.table->name);
    return names;
}

std::size_t TableCache::memory() const
{
    std::size_t bytes = 0;
    for (const Held& held : m_tables)
        bytes += held.memory;
    return bytes;
}

// What the table will take once the changes are made. Throws when they do not fit it.
std::size_t TableCache::check(const Held& held, TableChanges& changes)
{
    refuseTwins(changes);
    std::size_t bytes = held.memory;
    for (const Row& row : held.rows) {
        const RowChange* change = changeOf(changes.rows, row.uuid);
        if (change != nullptr && change->kind == ChangeKind::Insert)
            refuse(*held.table, row.uuid, "there is such a row already");
        bytes -= change != nullptr ? memoryOf(row) : 0;
    }
    for (const RowChange& change : changes.rows)
        bytes += change.kind != ChangeKind::Delete ? memoryOf(change.row) : 0;
    return bytes;
}

std::set<std::string> TableCache::apply(TableUpdate& update, const RowWatcher& watcher)
{
    struct Part {
        Held& held;
        std::vector<RowChange>& changes;
        std::size_t memoryAfter;
    };
    std::vector<Part> parts;
    std::size_t memoryAfter = memory();
    std::set<std::string> changedTables;
    for (TableChanges& changes : update.changes()) {
        Held& held = *std::ranges::find(m_tables, changes.table, &Held::table);
        const Part& part = parts.emplace_back(Part{held, changes.rows, check(held, changes)});
        memoryAfter = memoryAfter - held.memory + part.memoryAfter;
        if (memoryAfter > m_memoryLimit)
            throw ProtocolError("change of tables refused: rows of more than " + std::to_string(m_memoryLimit) +
                                " bytes");
        held.rows.reserve(held.rows.size() + changes.rows.size());
        if (isDifferent(held.rows, changes.rows))
            changedTables.emplace(held.table->name);
    }
    for (const Part& part : parts) {
        if (watcher)
            tell(watcher, *part.held.table, part.held.rows, part.changes);
    }
    for (const Part& part : parts) { // from here on nothing fails
        std::vector<Row>& rows = part.held.rows;
        std::erase_if(rows, [&](const Row& row) { return changeOf(part.changes, row.uuid) != nullptr; });
        const auto kept = static_cast<std::ptrdiff_t>(rows.size());
        for (RowChange& change : part.changes) {
            if (change.kind != ChangeKind::Delete)
                rows.push_back(std::move(change.row));
        }
        const ById byId(*part.held.table);
        std::sort(rows.begin() + kept, rows.end(), byId);
        std::inplace_merge(rows.begin(), rows.begin() + kept, rows.end(), byId);
        part.held.memory = part.memoryAfter;
    }
    return changedTables;
}

std::set<std::string> TableCache::replace(TableUpdate& update, const RowWatcher& watcher)
{
    TableCache fresh = *this;
    for (Held& held : fresh.m_tables)
        held = {.table = held.table, .rows = {}};
    for (const TableChanges& changes : update.changes()) {
        for (const RowChange& change : changes.rows) {
            if (change.kind != ChangeKind::Insert)
                refuse(*changes.table, change.row.uuid, "there is no such row");
        }
    }
    fresh.apply(update);
    std::set<std::string> changedTables;
    for (std::size_t i = 0; i < m_tables.size(); ++i) {
        if (m_tables[i].rows != fresh.m_tables[i].rows)
            changedTables.emplace(m_tables[i].table->name);
        if (watcher)
            tell(watcher, *m_tables[i].table, m_tables[i].rows, fresh.m_tables[i].rows);
    }
    m_tables = std::move(fresh.m_tables);
    return changedTables;
}

} // namespace ovsdb
