#include "ovsdb/subscription.hpp"

#include <algorithm>
#include <utility>

namespace ovsdb
{

namespace
{

const char* const noTransaction = "00000000-0000-0000-0000-000000000000";

// How deep the objects stand that hold a table's rows: {"result": {"table": {rows}}}, and with a list around the
// tables.
constexpr std::size_t rowsInAnswer = 3;
constexpr std::size_t rowsInList = 4;

// Which columns of which tables to tell of.
Json monitorRequests(const Database& database, const std::vector<std::string>& tableNames, bool conditional)
{
    Json::Object requests;
    for (const std::string& name : tableNames) {
        Json::Array columns;
        for (const Column& column : database.at(name).columns)
            columns.emplace_back(column.name);
        const Json request = Json::Object{{"columns", std::move(columns)}};
        requests.emplace_back(name, conditional ? Json(Json::Array{request}) : request);
    }
    return requests;
}

} // namespace

Subscription::Subscription(const Database& database, const std::vector<std::string>& tableNames,
                           std::size_t memoryLimit)
    : m_database(database), m_tables(database, tableNames, memoryLimit), m_lastTransaction(noTransaction)
{
}

void Subscription::begin(RpcSession& session)
{
    m_phase = Phase::AskedForDatabases;
    m_method = Method::Since;
    m_incoming.reset();
    m_request = session.request("list_dbs", Json::Array());
}

void Subscription::begin(RpcSession& session, const ServerSchema& schema)
{
    m_method = Method::Since;
    m_schema = schema;
    subscribe(session);
}

void Subscription::end()
{
    m_phase = Phase::Idle;
    m_incoming.reset();
}

bool Subscription::serverHas(std::string_view tableName) const
{
    return std::ranges::find(m_schema.missing, tableName) == m_schema.missing.end();
}

void Subscription::askForSchema(const RpcMessage& listed, RpcSession& session)
{
    m_phase = Phase::AskedForSchema;
    m_schema.database = listed.error ? m_database.name : chooseDatabase(listed.result, m_database.name);
    m_request = session.request("get_schema", Json::Array{Json(m_schema.database)});
}

void Subscription::subscribe(RpcSession& session)
{
    m_phase = Phase::Subscribing;
    m_incoming.reset();
    session.splitRowsAt(m_method == Method::Since ? rowsInList : rowsInAnswer);
    std::vector<std::string> names = m_tables.tableNames();
    std::erase_if(names, [this](const std::string& name) { return !serverHas(name); });
    // The subscription is named after the database.
    Json::Array params{Json(m_schema.database), Json(m_schema.database),
                       monitorRequests(m_database, names, m_method != Method::Plain)};
    if (m_method == Method::Since) {
        params.emplace_back(m_lastTransaction);
        m_request = session.request("monitor_cond_since", std::move(params));
    } else {
        m_request = session.request(m_method == Method::Conditional ? "monitor_cond" : "monitor", std::move(params));
    }
}

TableUpdate& Subscription::incoming()
{
    if (!m_incoming)
        m_incoming.emplace(m_tables, m_method == Method::Plain ? UpdateFormat::OldAndNew : UpdateFormat::Difference);
    return *m_incoming;
}

// The rows that came ahead of the message of which this is the object of tables.
TableUpdate Subscription::takeIncoming(const Json& tables)
{
    incoming().finish(tables);
    TableUpdate update = *std::move(m_incoming);
    m_incoming.reset();
    return update;
}

Subscription::Progress Subscription::handle(const RpcMessage& message, RpcSession& session)
{
    if (message.row) {
        incoming().add(message.row->table, message.row->name, message.row->value);
        return {};
    }
    if (!message.method.empty())
        return updated(message);
    if (message.id != m_request)
        throw ProtocolError("answer to a request that was not made: id " + std::to_string(message.id));
    if (m_phase == Phase::AskedForDatabases) {
        askForSchema(message, session);
        return {};
    }
    if (m_phase == Phase::AskedForSchema) {
        if (message.error)
            throw SchemaError("the server has no database \"" + m_schema.database + "\" (" + *message.error + ")");
        m_schema = checkSchema(message.result, m_database, m_schema.database, m_tables.tableNames());
        subscribe(session);
        return {};
    }
    return subscribed(message, session);
}

Subscription::Progress Subscription::subscribed(const RpcMessage& answer, RpcSession& session)
{
    if (answer.error) {
        if (m_method == Method::Plain)
            throw ProtocolError("subscription refused: " + *answer.error);
        m_method = m_method == Method::Since ? Method::Conditional : Method::Plain; // an older server
        subscribe(session);
        return {};
    }
    Progress progress{.synchronised = true, .changedTables = {}};
    if (m_method == Method::Since) {
        const Json::Array* reply = answer.result.asArray();
        const auto found = reply != nullptr && reply->size() == 3 ? (*reply)[0].asBool() : std::nullopt;
        const std::string* last = found ? (*reply)[1].asText() : nullptr;
        if (last == nullptr || !Uuid::fromText(*last))
            throw ProtocolError("subscription answered by something else than [boolean, transaction, tables]");
        TableUpdate update = takeIncoming((*reply)[2]);
        progress.changedTables = *found ? m_tables.apply(update, m_watcher) : m_tables.replace(update, m_watcher);
        m_lastTransaction = *last;
    } else {
        TableUpdate update = takeIncoming(answer.result);
        progress.changedTables = m_tables.replace(update, m_watcher);
        m_lastTransaction = noTransaction;
        session.splitRowsAt(rowsInList);
    }
    m_phase = Phase::Following;
    return progress;
}

Subscription::Progress Subscription::updated(const RpcMessage& notification)
{
    static constexpr std::pair<const char*, std::size_t> expected[] = {
        {"update3", 3}, {"update2", 2}, {"update", 2}}; // by Method: name, number of params
    const auto& [name, paramCount] = expected[static_cast<std::size_t>(m_method)];
    const Json::Array& params = *notification.result.asArray();
    if (m_phase != Phase::Following || notification.method != name)
        throw ProtocolError("unexpected notification \"" + notification.method.substr(0, 64) + "\"");
    if (params.size() != paramCount || params[0] != Json(m_schema.database))
        throw ProtocolError(std::string(name) + " with params of another shape");
    const std::string* transaction = m_method == Method::Since ? params[1].asText() : nullptr;
    if (m_method == Method::Since && (transaction == nullptr || !Uuid::fromText(*transaction)))
        throw ProtocolError(std::string(name) + " without a transaction");
    TableUpdate update = takeIncoming(params.back());
    Progress progress{.synchronised = false, .changedTables = m_tables.apply(update, m_watcher)};
    if (transaction != nullptr)
        m_lastTransaction = *transaction;
    return progress;
}

} // namespace ovsdb
