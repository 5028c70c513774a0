// What a server of a cluster says of itself: whether it leads, and whether it has a majority behind it.
#pragma once

#include "ovsdb/rpc_session.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace ovsdb
{

// For one connection. No input or output.
class ServerState
{
public:
    // Asks for the server's own database, and to be told when that changes.
    void begin(RpcSession& session);

    // Takes a message if it is about that; false: it is for somebody else. Throws ProtocolError.
    bool take(const RpcMessage& message);

    // Whether the server has answered.
    bool known() const { return m_known; }

    // Whether it has the database and is connected to its cluster, or to what it relays.
    bool connected(const std::string& database) const;
    // And whether its word is the latest: it leads the cluster, or is not in one.
    bool leads(const std::string& database) const;

private:
    struct Entry {
        std::string name;
        std::string model;
        bool connected = false;
        bool leader = false;
    };
    void takeRow(const std::string& uuid, const Json& change);
    void takeTables(const Json& tables);
    const Entry* find(const std::string& database) const;

    std::int64_t m_request = 0;
    bool m_known = false;
    std::map<std::string, Entry> m_entries; // by uuid
};

} // namespace ovsdb
