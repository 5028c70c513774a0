// Keeps a copy of tables equal to the server's: checks the schema, subscribes, follows the changes, and resumes
// after a lost connection where it was.
#pragma once

#include "ovsdb/rpc_session.hpp"
#include "ovsdb/schema_check.hpp"
#include "ovsdb/table_cache.hpp"
#include "ovsdb/table_update.hpp"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovsdb
{

// Lives longer than a connection; each connection has an RpcSession of its own. No input or output.
class Subscription
{
public:
    // The names must be of tables of the database, which must outlive this; others throw SchemaError.
    Subscription(const Database& database, const std::vector<std::string>& tableNames,
                 std::size_t memoryLimit = maximumTableMemory);
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    // From now on hears of every row that changes.
    void watchRows(RowWatcher watcher) { m_watcher = std::move(watcher); }

    // A new connection: asks for the databases, then for the schema of the one that is ours. The copy of the tables
    // stays until the server has told the current state.
    void begin(RpcSession& session);
    // Likewise, where this connection's schema is known, of all the tables, and found right.
    void begin(RpcSession& session, const ServerSchema& schema);

    // The connection is lost: forgets what has come of a message that is not complete.
    void end();

    // The tables that a message changed, and whether it was the first full state of this connection. A row ahead of its
    // message changes nothing yet.
    struct Progress {
        bool synchronised = false;
        std::set<std::string> changedTables;
    };

    // Takes a message of the session. Throws ProtocolError or SchemaError, with the copy as it was before.
    Progress handle(const RpcMessage& message, RpcSession& session);

    // Whether the copy is the server's current state, as far as this connection has told.
    bool synchronised() const { return m_phase == Phase::Following; }

    const TableCache& tables() const { return m_tables; }
    // Leaves the object without use.
    TableCache takeTables() { return std::move(m_tables); }
    // As this connection has told.
    const std::string& databaseName() const { return m_schema.database; }
    const std::string& schemaVersion() const { return m_schema.version; }
    // Whether the server of this connection has the table, as far as it has told its schema.
    bool serverHas(std::string_view tableName) const;

private:
    enum class Phase { Idle, AskedForDatabases, AskedForSchema, Subscribing, Following };
    // What the server may know, best first.
    enum class Method { Since, Conditional, Plain };

    void askForSchema(const RpcMessage& listed, RpcSession& session);
    void subscribe(RpcSession& session);
    TableUpdate& incoming();
    TableUpdate takeIncoming(const Json& tables);
    Progress subscribed(const RpcMessage& answer, RpcSession& session);
    Progress updated(const RpcMessage& notification);

    const Database& m_database;
    TableCache m_tables;
    RowWatcher m_watcher;
    std::optional<TableUpdate> m_incoming; // the rows of a message that is not complete
    Phase m_phase = Phase::Idle;
    Method m_method = Method::Since;
    std::int64_t m_request = 0;
    std::string m_lastTransaction;
    ServerSchema m_schema;
};

} // namespace ovsdb
