// Keeps a copy of tables equal to the server's: checks the schema, subscribes, follows the changes, and resumes
// after a lost connection where it was.
#pragma once

#include "ovsdb/rpc_session.hpp"
#include "ovsdb/table_cache.hpp"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ovsdb
{

// Lives longer than a connection; each connection has an RpcSession of its own. No input or output.
class Subscription
{
public:
    // The names must be of tables of the database, which must outlive this; others throw std::invalid_argument.
    Subscription(const Database& database, std::vector<std::string> tableNames);

    // A new connection: asks for the schema. The copy of the tables stays until the server has told the current state.
    void begin(RpcSession& session);

    // The tables that a message changed, and whether it was the first full state of this connection.
    struct Progress {
        bool synchronised = false;
        std::set<std::string> changedTables;
    };

    // Takes a message of the session. Throws ProtocolError or SchemaError, with the copy as it was before.
    Progress handle(const RpcMessage& message, RpcSession& session);

    // Whether the copy is the server's current state, as far as this connection has told.
    bool synchronised() const { return m_phase == Phase::Following; }

    const TableCache& tables() const { return m_tables; }
    const std::string& schemaVersion() const { return m_schemaVersion; }

private:
    enum class Phase { Idle, AskedForSchema, Subscribing, Following };
    // What the server may know, best first.
    enum class Method { Since, Conditional, Plain };

    void subscribe(RpcSession& session);
    Progress subscribed(const RpcMessage& answer, RpcSession& session);
    Progress updated(const RpcMessage& notification);

    const Database& m_database;
    const std::vector<std::string> m_tableNames;
    TableCache m_tables;
    Phase m_phase = Phase::Idle;
    Method m_method = Method::Since;
    std::int64_t m_request = 0;
    std::string m_lastTransaction;
    std::string m_schemaVersion;
};

} // namespace ovsdb
