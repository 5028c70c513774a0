// The time that the handler takes for the rule table, by phase, and the peak memory of the process.
//
// usage: handler_bench [rules]     (10000 otherwise). One number of rules per process, so that the memory is its own.
// Rows come from memory and lines go to a queue that drops them: what is measured is the handler. Times are the
// processor's, which other programs on the machine disturb least; nothing here waits.
#include "handler/moatkeeper.hpp"
#include "platform/action_queue.hpp"
#include "platform_fake/memory_tables.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace
{

class DroppingQueue : public zol::cfg::ActionQueue
{
public:
    void addCommand(const std::string& commandLine) override { m_bytes += commandLine.size(); }
    int process() override { return 0; }

private:
    std::size_t m_bytes = 0;
};

// Priorities in no order, one in eight shared; all kinds of rule.
std::vector<fake::Row> makeRows(int count)
{
    std::vector<fake::Row> rows;
    for (int i = 0; i < count; ++i) {
        fake::Row row;
        row.set("Id", i + 1).set("Enabled", 1).set("RulePrio", (i * 7919) % (count - count / 8) + 1);
        row.set("InInterface", "eth" + std::to_string(i % 8)).set("OutInterface", i % 2 == 0 ? "" : "wlan0");
        row.set("DstMAC", "").set("SrcMAC", i % 3 == 0 ? "00:11:22:33:44:55" : "").set("VLANID", i % 5 == 0 ? 100 : -1);
        row.set("Ethertype", "IPv4").set("IPSrcAddr", "192.168." + std::to_string(i % 256) + ".0/24");
        row.set("IPDstAddr", "").set("IPProto", "TCP").set("IPPort", 1 + i % 60000);
        row.set("Target", i % 2 == 0 ? "ACCEPT" : "DROP").set("EnableLogging", i % 2);
        rows.push_back(row);
    }
    return rows;
}

double processorMilliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// The median of a few runs, in milliseconds.
double median(const std::function<void()>& prepare, const std::function<void()>& work)
{
    std::vector<double> times;
    for (int run = 0; run < 9; ++run) {
        prepare();
        const double begin = processorMilliseconds();
        work();
        times.push_back(processorMilliseconds() - begin);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

zol::moatkeeper::EtherRule makeRule(const tessera::ValueList& v)
{
    const auto integer = [&](const char* name) { return v.getValue(name).getInteger(); };
    const auto text = [&](const char* name) { return v.getValue(name).getText(); };
    return {integer("Id"),   integer("RulePrio"), text("InInterface"), text("OutInterface"),    text("DstMAC"),
            text("SrcMAC"),  integer("VLANID"),   text("Ethertype"),   text("IPSrcAddr"),       text("IPDstAddr"),
            text("IPProto"), integer("IPPort"),   text("Target"),      integer("EnableLogging")};
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count < 8) {
        std::fprintf(stderr, "%s: expected a number of rules, 8 or more\n", argv[1]);
        return 1;
    }
    const std::string table = "MoatKeeperRuleset";
    fake::MemoryTables tables;
    tables.setRows(table, makeRows(count));
    DroppingQueue queue;
    std::unique_ptr<zol::moatkeeper::moatkeeper> handler;
    const auto nothing = [] {};

    const double firstRead = median([&] { handler = std::make_unique<zol::moatkeeper::moatkeeper>(); },
                                    [&] { handler->loadFromConfig(tables, table); });
    const double reRead = median(nothing, [&] { handler->loadFromConfig(tables, table); });
    const double commit = median(
        [&] {
            handler = std::make_unique<zol::moatkeeper::moatkeeper>();
            handler->loadFromConfig(tables, table);
        },
        [&] { handler->commitToSystem(tables, &queue); });
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // before the phases below add lists of their own

    // The phases of a read, each on its own.
    tessera::NameList names;
    tessera::ValueList values;
    const double rows = median(nothing, [&] {
        for (int i = 0; i < count; ++i)
            tables.readRow(table, static_cast<std::uint32_t>(i), names, values);
    });
    std::list<zol::moatkeeper::EtherRule> rules;
    const double assembling = median([&] { rules.clear(); },
                                     [&] {
                                         for (int i = 0; i < count; ++i) {
                                             tables.readRow(table, static_cast<std::uint32_t>(i), names, values);
                                             rules.push_back(makeRule(values));
                                         }
                                     });
    std::list<zol::moatkeeper::EtherRule> unsorted;
    std::list<zol::moatkeeper::EtherRule> copy;
    const double copying = median([&] { copy.clear(); }, [&] { copy = rules; });
    const double sorting =
        median([&] { unsorted = rules; },
               [&] { unsorted.sort([](const auto& a, const auto& b) { return a.rulePrio() < b.rulePrio(); }); });
    bool differs = false;
    const double comparing = median(nothing, [&] {
        for (auto a = rules.begin(), b = copy.begin(); a != rules.end(); ++a, ++b)
            differs = *a != *b || differs;
    });

    std::printf("%d rules\n", count);
    std::printf("first read            %8.2f ms\n", firstRead);
    std::printf("re-read, no change    %8.2f ms\n", reRead);
    std::printf("commit, lines dropped %8.2f ms\n", commit);
    std::printf("phases of a read:\n");
    std::printf("  rows from memory    %8.2f ms\n", rows);
    std::printf("  assemble, append    %8.2f ms\n", assembling - rows);
    std::printf("  sort                %8.2f ms\n", sorting);
    std::printf("  copy of the list    %8.2f ms\n", copying);
    std::printf("  compare             %8.2f ms\n", comparing);
    std::printf("peak memory           %8.1f MB\n", static_cast<double>(usage.ru_maxrss) / 1024);
    return differs ? 1 : 0;
}
