// Bytes from a configuration server, at five moments of a connection: before its databases are known, before the
// schema, before the subscription, and with rows held from an old and from a current server, in pieces of several
// sizes. Whatever comes, it is taken or refused with an error of ours, refused bytes leave the tables as they were, and
// the sizes of the pieces do not matter.
#include "ovsdb/subscription.hpp"
#include "schema/server/database.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace
{

const std::string& schemaReply()
{
    static const std::string reply = [] {
        std::ifstream file(MOATKEEPER_SCHEMA);
        const std::string schema{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (schema.empty())
            std::abort();
        return R"({"id":2,"error":null,"result":)" + schema + "}";
    }();
    return reply;
}

const char* const row = R"({"Id":1,"Enabled":1,"Interface":"eth0","Policy":"DROP","EnableLogging":0})";
const std::string uuid = "aaaaaaaa-0000-0000-0000-000000000001";

void take(std::string_view bytes, ovsdb::RpcSession& session, ovsdb::Subscription& subscription)
{
    session.receive(bytes);
    while (const auto message = session.next())
        subscription.handle(*message, session);
}

using Copy = std::vector<std::vector<ovsdb::Row>>;

Copy copyOf(const ovsdb::TableCache& tables)
{
    Copy copy;
    for (const std::string& name : tables.tableNames())
        copy.emplace_back(tables.rows(name).begin(), tables.rows(name).end());
    return copy;
}

// The tables after the bytes, or after what was taken of them.
Copy tablesAfter(int moment, std::string_view bytes, std::size_t atATime)
{
    ovsdb::Subscription subscription(schema::serverDatabase(),
                                     {"MoatKeeper", "MoatKeeperInputPolicy", "MoatKeeperRuleset"});
    ovsdb::RpcSession session;
    subscription.begin(session);
    if (moment >= 0)
        take(R"({"id":1,"error":null,"result":["moatkeeper"]})", session, subscription);
    if (moment >= 1)
        take(schemaReply(), session, subscription);
    if (moment == 2) {
        take(R"({"id":3,"error":"unknown method"})", session, subscription);
        take(R"({"id":4,"error":"unknown method"})", session, subscription);
        take(R"({"id":5,"error":null,"result":{"MoatKeeperInputPolicy":{")" + uuid + R"(":{"new":)" + row + "}}}}",
             session, subscription);
    } else if (moment == 3) {
        take(R"({"id":3,"error":null,"result":[false,")" + uuid + R"(",{"MoatKeeperInputPolicy":{")" + uuid +
                 R"(":{"initial":)" + row + "}}}]}",
             session, subscription);
    }
    try {
        for (; !bytes.empty(); bytes.remove_prefix(std::min(atATime, bytes.size()))) {
            session.receive(bytes.substr(0, atATime));
            while (const auto message = session.next()) {
                const Copy before = copyOf(subscription.tables());
                try {
                    subscription.handle(*message, session);
                } catch (const ovsdb::Error&) {
                    if (copyOf(subscription.tables()) != before)
                        std::abort(); // half a change was taken
                    throw;
                }
                if (message->row && copyOf(subscription.tables()) != before)
                    std::abort(); // a row was taken before its message was complete
            }
        }
    } catch (const ovsdb::Error&) { // the connection would be dropped
    }
    return copyOf(subscription.tables());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const int moment = data[0] == 255 ? -1 : data[0] % 4;
    const Copy whole = tablesAfter(moment, bytes, size);
    if (tablesAfter(moment, bytes, 1 + data[0] / 4) != whole)
        std::abort();
    return 0;
}
