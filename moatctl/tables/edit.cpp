#include "moatctl/tables/edit.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/server.hpp"
#include "ovsdb/client.hpp"
#include "schema/device.hpp"
#include "schema/history.hpp"
#include "schema/server/database.hpp"

#include <algorithm>
#include <map>
#include <random>
#include <utility>

namespace moatctl
{

namespace
{

ovsdb::Json require(const Row& row)
{
    return ovsdb::requireRow(schema::serverDatabase().at(row.table->name),
                             {.uuid = *row.uuid, .values = ovsdb::RowValues(row.values)});
}

// Values of a new row, or those that differ.
ovsdb::ColumnValues valuesOf(const Row* before, const Row& after)
{
    ovsdb::ColumnValues values;
    for (std::size_t i = 0; i < after.values.size(); ++i) {
        if (before == nullptr || before->values[i] != after.values[i])
            values.emplace_back(after.table->columns[i].name, after.values[i]);
    }
    return values;
}

// A transaction, and for each operation the change that it belongs to.
struct Plan {
    std::vector<ovsdb::Json> operations;
    std::vector<const Change*> changeOf;

    void add(ovsdb::Json operation, const Change* change)
    {
        operations.push_back(std::move(operation));
        changeOf.push_back(change);
    }
};

// An entry of a filter needs its filter: what others do to either in the meantime must not part them.
void keepTogether(const std::vector<Change>& changes, const Configuration& before,
                  std::set<std::pair<TableId, std::int32_t>>& reliedOn, Plan& plan)
{
    std::map<std::int32_t, std::vector<std::int32_t>> entriesOf; // of filters that go
    for (const Change& change : changes) {
        if (change.table->id == TableId::FilterRules && change.after != nullptr)
            reliedOn.emplace(TableId::Filters, change.after->integer("BridgeFilterID"));
        if (change.table->id == TableId::Filters && change.after == nullptr)
            entriesOf[change.id];
    }
    if (entriesOf.empty())
        return;
    for (const Row& entry : before.rows(TableId::FilterRules)) {
        if (const auto filter = entriesOf.find(entry.integer("BridgeFilterID")); filter != entriesOf.end())
            filter->second.push_back(entry.id());
    }
    for (const auto& [filter, entries] : entriesOf)
        plan.add(ovsdb::requireOnlyRows(schema::table(TableId::FilterRules).name, "BridgeFilterID", filter, entries),
                 nullptr);
}

Plan planOf(const std::vector<Change>& changes, const Configuration& before, const Editor& editor)
{
    Plan plan;
    std::set<std::pair<TableId, std::int32_t>> reliedOn = editor.reliedOn();
    keepTogether(changes, before, reliedOn, plan);
    for (const auto& [table, id] : reliedOn) {
        if (const Row* row = before.find(table, id))
            plan.add(require(*row), nullptr);
    }
    for (const Change& change : changes) {
        if (change.before != nullptr)
            plan.add(require(*change.before), nullptr);
    }
    for (const Change& change : changes) {
        const std::string_view table = change.table->name;
        if (change.before == nullptr) // that the Id is free, the server sees to itself
            plan.add(ovsdb::insertRow(table, valuesOf(nullptr, *change.after)), &change);
        else if (change.after == nullptr)
            plan.add(ovsdb::deleteRows(table, ovsdb::rowWithUuid(*change.before->uuid)), &change);
        else
            plan.add(ovsdb::updateRows(table, ovsdb::rowWithUuid(*change.before->uuid),
                                       valuesOf(change.before, *change.after)),
                     &change);
    }
    return plan;
}

// The largest Ids that the tables ever had, where the server remembers them and a change is about that table.
void rememberIds(const std::vector<Change>& changes, const Configuration& after, Plan& plan)
{
    std::set<TableId> tables;
    for (const Change& change : changes) {
        if (change.table->hasIds())
            tables.insert(change.table->id);
    }
    for (const TableId table : tables) {
        const auto known = after.usedIds.find(table);
        const std::int32_t largest = after.largestId(table);
        const ovsdb::ColumnValues values{{"LargestId", tessera::Value(largest)}};
        if (known == after.usedIds.end()) {
            ovsdb::ColumnValues all = values;
            all.emplace_back("Table", tessera::Value(std::string(schema::table(table).name)));
            plan.add(ovsdb::insertRow(schema::usedIdsTable, all), nullptr);
        } else if (known->second.values[1].getInteger() < largest) {
            plan.add(ovsdb::requireRow(schema::serverDatabase().at(schema::usedIdsTable), known->second), nullptr);
            plan.add(ovsdb::updateRows(schema::usedIdsTable, ovsdb::rowWithUuid(known->second.uuid), values), nullptr);
        }
    }
}

void planAcknowledged(const Configuration& before, const Configuration& after, Plan& plan)
{
    for (const auto& [acknowledged, uuid] : before.acknowledged) {
        if (!after.acknowledged.contains(acknowledged))
            plan.add(ovsdb::deleteRows(schema::acknowledgedTable, ovsdb::rowWithUuid(uuid)), nullptr);
    }
    for (const auto& [acknowledged, uuid] : after.acknowledged) {
        if (!before.acknowledged.contains(acknowledged))
            plan.add(ovsdb::insertRow(schema::acknowledgedTable,
                                      {{"Table", tessera::Value(std::string(schema::table(acknowledged.table).name))},
                                       {"Row", tessera::Value(acknowledged.id)},
                                       {"Warning", tessera::Value(acknowledged.warning)}}),
                     nullptr);
    }
}

bool has(const ovsdb::Client& client, std::string_view table)
{
    return std::ranges::find(client.tableNames(), table) != client.tableNames().end();
}

// Beside the rows.
void planNotes(const ovsdb::Client& client, const std::vector<Change>& changes, const Editor& editor, Plan& plan)
{
    if (has(client, schema::usedIdsTable))
        rememberIds(changes, editor.configuration, plan);
    const std::size_t known = plan.operations.size();
    planAcknowledged(editor.before, editor.configuration, plan);
    if (plan.operations.size() != known && !has(client, schema::acknowledgedTable))
        throw Failure(ExitStatus::Server, "the server's database, schema " + client.schemaVersion() +
                                              ", has no place for acknowledged warnings: expected schema 1.1 or later");
}

void planHistory(const ovsdb::Client& client, const Occasion& occasion,
                 const std::vector<schema::RecordedChange>& changes, const std::optional<ovsdb::Uuid>& name, Plan& plan)
{
    if (changes.empty())
        return;
    if (!has(client, schema::historyTable)) {
        if (occasion.trial != 0)
            throw Failure(ExitStatus::Server, "the server's database, schema " + client.schemaVersion() +
                                                  ", has no place for a change that waits to be confirmed: expected "
                                                  "schema 1.1 or later; nothing was changed");
        return;
    }
    for (ovsdb::Json& operation : addToHistory(client.followed(), occasion, changes, name))
        plan.add(std::move(operation), nullptr);
}

// Everybody who waits for the change to be in force waits for its number. Returns the number where it is known now; the
// transaction says otherwise.
std::optional<std::int32_t> planNumber(const ovsdb::TableCache& state, Plan& plan)
{
    if (changeNumberOf(state)) {
        for (ovsdb::Json& operation : ovsdb::countUp(schema::changeTable, schema::changeNumber, schema::changeNumbers))
            plan.add(std::move(operation), nullptr);
        return std::nullopt;
    }
    // The first one, which no device has put in force yet.
    std::int32_t largest = 0;
    for (const Device& device : devicesOf(state))
        largest = std::max(largest, device.number);
    const std::int32_t number = (largest + 1) % schema::changeNumbers;
    plan.add(ovsdb::insertRow(schema::changeTable, {{std::string(schema::changeNumber), tessera::Value(number)}}),
             nullptr);
    return number;
}

Failure unknown(const std::string& why)
{
    return Failure(ExitStatus::Server, why + "; " + unknownWhetherStored);
}

// Whether somebody else was faster: a row is not what it was, or an Id or the entry is there by now.
bool overtaken(const Plan& plan, const ovsdb::TransactionResult& result)
{
    if (const auto failed = result.failedOperation()) {
        const std::string& error = result.outcomes[*failed].error;
        return plan.changeOf[*failed] == nullptr && (error == "timed out" || error == "duplicate uuid");
    }
    return result.commitFailed && result.commitFailed->error == "constraint violation";
}

[[noreturn]] void refuse(const Plan& plan, const ovsdb::TransactionResult& result)
{
    std::string where;
    if (const auto failed = result.failedOperation(); failed && plan.changeOf[*failed] != nullptr) {
        const Change& change = *plan.changeOf[*failed];
        where = std::string(change.table->name) + (change.id != 0 ? " Id " + std::to_string(change.id) : "") + ": ";
        throw Failure(ExitStatus::BadInput, where + "refused by the server: " + result.errorText());
    }
    throw Failure(ExitStatus::Server, "the server refused the change: " + result.errorText());
}

ovsdb::Uuid randomUuid()
{
    ovsdb::Uuid uuid;
    std::random_device random;
    for (std::uint8_t& byte : uuid.bytes)
        byte = static_cast<std::uint8_t>(random());
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0f) | 0x40); // version 4
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);
    return uuid;
}

class Edit
{
public:
    Edit(ovsdb::Client& client, const std::function<void(Editor&)>& edit, const Occasion& occasion)
        : m_client(client), m_edit(edit), m_occasion(occasion)
    {
    }

    // Nothing: to be tried again.
    std::optional<Stored> attempt()
    {
        if (!m_unanswered)
            return makeAndStore();
        try {
            return makeAndStore();
        } catch (const ovsdb::Error& error) {
            throw unknown(error.what());
        } catch (const Failure& failure) {
            throw unknown(failure.what());
        }
    }

    void giveUp() const
    {
        if (m_unanswered)
            throw unknown("others kept changing the same rows");
    }

private:
    // Sent, and lost sight of or refused: a cluster that loses its leader may try a transaction again that it has
    // stored, and tells that it was overtaken, by itself.
    struct Sent {
        ovsdb::Uuid entry; // of the history
        Stored stored;
    };

    std::optional<Stored> makeAndStore()
    {
        Stored stored;
        const ovsdb::TableCache& state = m_client.follow(m_client.tableNames());
        if (auto done = findStored(state))
            return done;
        stored.before = toConfiguration(state);
        stored.devicesBefore = devicesOf(state);
        stored.numberBefore = changeNumberOf(state);
        Editor editor(stored.before);
        m_edit(editor);
        // An acknowledgement goes with its row.
        std::erase_if(editor.configuration.acknowledged, [&editor](const auto& acknowledged) {
            return editor.configuration.find(acknowledged.first.table, acknowledged.first.id) == nullptr;
        });
        const std::vector<Change> changes = difference(stored.before, editor.configuration);
        const bool counted = !changes.empty() && tellsWhatIsInForce(m_client);
        const bool toDo = !changes.empty() || editor.configuration.acknowledged != stored.before.acknowledged;
        if (!toDo && m_unanswered)
            throw Failure(ExitStatus::Conflict, "the rows are as the change would make them");
        Plan plan = planOf(changes, stored.before, editor);
        planNotes(m_client, changes, editor, plan);
        const std::vector<schema::RecordedChange> recorded =
            recordedChanges(changes, stored.before, editor.configuration);
        std::optional<ovsdb::Uuid> entry;
        if (m_client.connectsAgain() && !recorded.empty() && has(m_client, schema::historyTable))
            entry = randomUuid();
        planHistory(m_client, m_occasion, recorded, entry, plan);
        if (counted)
            stored.number = planNumber(state, plan);
        stored.told = editor.told();
        stored.changed = !changes.empty();
        stored.flawless = editor.flawless;
        for (const Change& change : changes) {
            if (change.after != nullptr)
                stored.rows.emplace(change.table->id, change.id);
        }
        if (toDo) {
            const auto result = send(plan, entry, stored, editor);
            if (!result || overtaken(plan, *result))
                return std::nullopt;
            if (!result->committed())
                refuse(plan, *result);
            if (counted && !stored.number)
                stored.number = result->outcomes.back().number;
        }
        stored.after = std::move(editor.configuration);
        return stored;
    }

    // Nothing: lost sight of, and there is a way to find out by the entry.
    std::optional<ovsdb::TransactionResult> send(const Plan& plan, const std::optional<ovsdb::Uuid>& entry,
                                                 const Stored& stored, const Editor& editor)
    {
        if (entry) {
            m_sent.push_back({*entry, stored});
            m_sent.back().stored.after = editor.configuration;
        }
        try {
            return transactOnce(m_client, plan.operations, unknownWhetherStored);
        } catch (const Failure&) {
            if (!entry)
                throw;
            m_unanswered = true;
            return std::nullopt;
        }
    }

    std::optional<Stored> findStored(const ovsdb::TableCache& state)
    {
        for (const ovsdb::Row& row : state.rows(schema::historyTable)) {
            for (Sent& sent : m_sent) {
                if (sent.entry != row.uuid)
                    continue;
                if (!sent.stored.number) // no smaller than its own
                    sent.stored.number = changeNumberOf(state);
                return std::move(sent.stored);
            }
        }
        return std::nullopt;
    }

    ovsdb::Client& m_client;
    const std::function<void(Editor&)>& m_edit;
    const Occasion& m_occasion;
    std::vector<Sent> m_sent;
    bool m_unanswered = false; // one of them
};

} // namespace

ovsdb::TransactionResult transactOnce(ovsdb::Client& client, const std::vector<ovsdb::Json>& operations,
                                      const std::string& unknown)
{
    try {
        return client.transact(operations);
    } catch (const ovsdb::ConnectionError& error) {
        throw Failure(ExitStatus::Server, std::string(error.what()) + "; " + unknown);
    } catch (const ovsdb::TimeoutError& error) {
        throw Failure(ExitStatus::Server, std::string(error.what()) + "; " + unknown);
    }
}

Stored applyEdit(ovsdb::Client& client, const std::function<void(Editor&)>& edit, const Occasion& occasion)
{
    Edit work(client, edit, occasion);
    for (int attempt = 0; attempt < attemptLimit; ++attempt) {
        if (auto stored = work.attempt())
            return *std::move(stored);
    }
    work.giveUp();
    throw Failure(ExitStatus::Conflict,
                  "gave up after " + std::to_string(attemptLimit) +
                      " attempts because other clients kept changing the same rows; nothing was changed");
}

} // namespace moatctl
