#include "ovsdb/server_state.hpp"

#include <utility>

namespace ovsdb
{

namespace
{

const char* const serverDatabase = "_Server";
const char* const databaseTable = "Database";

std::string textOf(const Json* value)
{
    return value != nullptr && value->asText() != nullptr ? *value->asText() : "";
}

bool boolOf(const Json* value)
{
    return value != nullptr && value->asBool().value_or(false);
}

} // namespace

void ServerState::begin(RpcSession& session)
{
    const Json columns = Json::Array{Json("name"), Json("model"), Json("connected"), Json("leader")};
    const Json tables = Json::Object{{databaseTable, Json::Object{{"columns", columns}}}};
    m_request = session.request("monitor", Json::Array{Json(serverDatabase), Json(serverDatabase), tables});
}

bool ServerState::take(const RpcMessage& message)
{
    if (message.row) { // cut out ahead of its message
        if (m_request == 0 || message.row->table != databaseTable)
            return false;
        takeRow(message.row->name, message.row->value);
        return true;
    }
    if (message.method.empty()) {
        if (m_request == 0 || message.id != m_request)
            return false;
        if (message.error)
            throw ProtocolError("the server does not tell whether it leads a cluster: " + *message.error);
        takeTables(message.result);
        m_known = true;
        return true;
    }
    const Json::Array& params = *message.result.asArray();
    if (message.method != "update" || params.size() != 2 || params[0] != Json(serverDatabase))
        return false;
    takeTables(params[1]);
    return true;
}

void ServerState::takeTables(const Json& tables)
{
    const Json* table = tables.find(databaseTable);
    if (table == nullptr || table->asObject() == nullptr)
        return;
    for (const auto& [uuid, change] : *table->asObject()) {
        if (!uuid.empty()) // that stands for rows that were cut out
            takeRow(uuid, change);
    }
}

void ServerState::takeRow(const std::string& uuid, const Json& change)
{
    const Json* row = change.find("new");
    if (row == nullptr || row->asObject() == nullptr) {
        m_entries.erase(uuid);
        return;
    }
    m_entries[uuid] = {.name = textOf(row->find("name")),
                       .model = textOf(row->find("model")),
                       .connected = boolOf(row->find("connected")),
                       .leader = boolOf(row->find("leader"))};
}

const ServerState::Entry* ServerState::find(const std::string& database) const
{
    for (const auto& [uuid, entry] : m_entries) {
        if (entry.name == database)
            return &entry;
    }
    return nullptr;
}

bool ServerState::connected(const std::string& database) const
{
    const Entry* entry = find(database);
    return entry != nullptr && entry->connected;
}

bool ServerState::leads(const std::string& database) const
{
    const Entry* entry = find(database);
    return entry != nullptr && entry->connected && (entry->leader || entry->model != "clustered");
}

} // namespace ovsdb
