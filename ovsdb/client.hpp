// A blocking client of the configuration server, for command-line tools.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/error.hpp"
#include "ovsdb/operations.hpp"
#include "ovsdb/stream.hpp"
#include "ovsdb/table_cache.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace ovsdb
{

struct ClientOptions {
    std::string socketPath; // of a server on this machine
    // For each answer, or the next part of a long one. A server that is not there is an error at once.
    std::chrono::milliseconds timeout{5000};
    // Those to use instead: one, or the servers of a cluster. Of these the one that leads is found and, when it is lost
    // or leads no more, the next, within the timeout.
    std::vector<Server> servers{};
    // The database to use where there are several that could be meant.
    std::string database{};
    // Called now and then while an answer is waited for, with how much of the request is sent; may be empty.
    std::function<void(std::size_t sentBytes, std::size_t allBytes)> onProgress{};
};

// A connection; with servers, one after the other. Every operation waits for its answer, for the timeout at most. What
// only reads is done again when the server is lost meanwhile; what changes something is not.
//
// Errors: ConnectionError (no server, a socket whose owner is neither root nor this process's user, connection ended),
// TimeoutError, ProtocolError (the peer is no configuration server), SchemaError (no such database, or tables of
// another shape). After one of them the object is of no use any more. RequestError: the server refused the request;
// the object can go on.
// Threading: one thread at a time.
class Client
{
public:
    // Connects and checks the peer and its schema. The database must outlive the client and what it reads.
    Client(const Database& database, ClientOptions options);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // The database that is used.
    const std::string& databaseName() const;

    // Whether it connects again when a server is lost: it was given servers.
    bool connectsAgain() const;

    // The version of the server's schema, "1.0.0".
    const std::string& schemaVersion() const;

    // The tables of the database that the server has: all but some that may be missing.
    const std::vector<std::string>& tableNames() const;

    // All rows of these tables, one consistent state.
    TableCache read();
    TableCache read(const std::vector<std::string>& tableNames);

    // A copy of these tables that this connection keeps: what the server tells while a transaction or awaitChange waits
    // is taken in. Valid until the next call of follow, read or watch.
    const TableCache& follow(const std::vector<std::string>& tableNames);

    // What follow gave last.
    const TableCache& followed() const;

    // Until something is different in the copy that follow gave, which must be valid. False: it is that time.
    bool awaitChange(std::chrono::steady_clock::time_point end);

    // All of it, or nothing. Errors of single operations are in the result. When the server, or the one behind a relay,
    // is lost before it has answered, nobody knows which of the two: then throws ConnectionError or TimeoutError and,
    // with servers, the object stays of use.
    TransactionResult transact(const std::vector<Json>& operations);

    // Calls back once with the first state (all tables named as changed), then after every change, until the callback
    // returns false. Waits for changes without a limit.
    using OnChange = std::function<bool(const TableCache& state, const std::set<std::string>& changedTables)>;
    //
    // With onConnection, no error ends the watch once the first state is there: it is called with the error (and again
    // when attempts to reconnect fail in another way), then with null as soon as the server is back; changes made in
    // between are called back next, as one. Tries again every reconnectInterval, for ever.
    using OnConnection = std::function<void(const Error* lost)>;
    static constexpr std::chrono::milliseconds reconnectInterval{500};
    void watch(const std::vector<std::string>& tableNames, const OnChange& onChange,
               const OnConnection& onConnection = {});

private:
    class State;
    std::unique_ptr<State> m_state;
};

} // namespace ovsdb
