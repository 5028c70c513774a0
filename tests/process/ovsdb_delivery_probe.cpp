// The daemon's notification handling with a handler that prints what it is told, one line an event, for the tests of
// the connection to the configuration server: load NAME table=rows ... / Id=value ..., commit, stopped.
#include "platform/config_handler.hpp"
#include "platform/config_reader.hpp"
#include "platform/event_dispatcher.hpp"
#include "platform/notification_handler.hpp"
#include "platform/sysloglevel.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <list>
#include <string>

namespace
{

volatile std::sig_atomic_t g_stop = 0;

const char* const tableNames[] = {"MoatKeeper",        "MoatKeeperInputPolicy",   "MoatKeeperForwardingPolicy",
                                  "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"};

class Printer : public zol::cfg::IConfigHandler
{
public:
    void getTableNames(std::list<std::string>& names) override
    {
        for (const char* name : tableNames)
            names.emplace_back(name);
    }

    bool loadFromConfig(zol::cfg::IConfigReader& source, const std::string& tableName) override
    {
        std::string line = "load " + (tableName.empty() ? std::string("*") : tableName);
        for (const char* name : tableNames) {
            std::uint32_t count = 0;
            source.getRowCount(name, count);
            line += std::string(" ") + name + "=" + std::to_string(count);
        }
        std::uint32_t rules = 0;
        source.getRowCount("MoatKeeperRuleset", rules);
        for (std::uint32_t i = 0; i < rules && i < 5; ++i) {
            tessera::NameList names;
            tessera::ValueList values;
            source.readRow("MoatKeeperRuleset", i, names, values);
            line += " rule(" + std::to_string(values.getValue("Id").getInteger()) + "," +
                    std::to_string(values.getValue("Enabled").getInteger()) + "," +
                    std::to_string(values.getValue("VLANID").getInteger()) + "," +
                    values.getValue("InInterface").getText() + "," + values.getValue("Target").getText() + ")";
        }
        std::puts(line.c_str());
        return true;
    }

    void commitToSystem(zol::cfg::IConfigReader&, zol::cfg::ActionQueue*) override { std::puts("commit"); }
};

} // namespace

// Arguments: socket path, request timeout in seconds, reconnect interval in milliseconds.
int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    ZOL_Sysloglevel_construct2("", argv[0]);
    ZOL_Sysloglevel_set(0);
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    try {
        tessera::net::EventDispatcher dispatcher;
        zol::cfg::NotificationHandler notifications(argv[1], dispatcher, "probe", false, std::atoi(argv[2]),
                                                    std::atoi(argv[3]), true);
        Printer printer;
        notifications.registerConfigHandler(&printer);
        notifications.initialize();
        while (g_stop == 0) {
            if (dispatcher.handleEvents())
                notifications.process();
        }
    } catch (const std::exception& e) {
        std::printf("exception %s\n", e.what());
        return 1;
    }
    std::puts("stopped");
    return 0;
}
