// From the servers that a client may use to the one that it does.
#pragma once

#include "ovsdb/rpc_session.hpp"
#include "ovsdb/server_state.hpp"
#include "ovsdb/stream.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ovsdb
{

// A connection on which nothing is asked or owed, but for what the state hears.
struct ServerFound {
    std::string server;
    std::unique_ptr<Stream> stream;
    RpcSession session;
    ServerState state; // of one among several only
    std::string database;
};

// Tries all at once. One server alone is taken as it is, and what is wrong with it is an error at once; of several, the
// first that leads the database's cluster, and where none does they are tried again until the time is over, unless no
// answer could change that.
//
// database: the name that the databases' names begin with; wanted: the one to use, "" for the only one. patience: for
// messages, how long the search may take. whileWaiting: called now and then; may be empty. Throws ConnectionError,
// TimeoutError, ProtocolError or SchemaError.
ServerFound findServer(const std::vector<Server>& servers, const std::string& database, const std::string& wanted,
                       std::chrono::milliseconds patience, const std::function<void()>& whileWaiting);

} // namespace ovsdb
