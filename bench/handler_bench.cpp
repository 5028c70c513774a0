// The time that the handler takes for the rule table, by phase, how it grows with the table, and the peak memory.
//
// usage: handler_bench [rules]     (10000 otherwise, compared with a tenth of them)
// Rows come from memory and lines go to a queue that drops them: what is measured is the handler. Times are the
// processor's, which other programs on the machine disturb least; nothing here waits. Both tables take turns, so that
// both meet the same machine and neither finds in the cache what its last turn left there: no daemon does either, it
// reads a table when somebody has changed it.
#include "handler/moatkeeper.hpp"
#include "platform/action_queue.hpp"
#include "platform_fake/memory_tables.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <memory_resource>
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

zol::moatkeeper::EtherRule makeRule(const tessera::ValueList& v)
{
    const auto integer = [&](const char* name) { return v.getValue(name).getInteger(); };
    const auto text = [&](const char* name) -> const std::string& { return v.getValue(name).getText(); };
    return {integer("Id"),   integer("RulePrio"), text("InInterface"), text("OutInterface"),    text("DstMAC"),
            text("SrcMAC"),  integer("VLANID"),   text("Ethertype"),   text("IPSrcAddr"),       text("IPDstAddr"),
            text("IPProto"), integer("IPPort"),   text("Target"),      integer("EnableLogging")};
}

// In the order in which they are measured.
enum Measure : std::size_t { firstRead, commit, reRead, rows, assembling, sorting, copying, comparing, measures };

constexpr std::array<const char*, measures> measureNames{"first read",
                                                         "commit, lines dropped",
                                                         "re-read, no change",
                                                         "rows from memory",
                                                         "rows, assemble, append",
                                                         "sort",
                                                         "copy of the list",
                                                         "compare"};

// A table of so many rules and what is measured with it.
class Subject
{
public:
    explicit Subject(int count) : m_count(static_cast<std::uint32_t>(count))
    {
        m_tables.setRows(m_table, makeRows(count));
        m_handler.loadFromConfig(m_tables, m_table);
        m_handler.loadFromConfig(m_tables, m_table);
    }

    void measure(Measure what)
    {
        switch (what) {
        case firstRead:
            m_newHandler = std::make_unique<zol::moatkeeper::moatkeeper>();
            return time(what, [&] { m_newHandler->loadFromConfig(m_tables, m_table); });
        case commit:
            time(what, [&] { m_newHandler->commitToSystem(m_tables, &m_queue); });
            return m_newHandler.reset();
        case reRead:
            return time(what, [&] { m_handler.loadFromConfig(m_tables, m_table); });
        // The phases of a read, each on its own.
        case rows:
            return time(what, [&] { readRows([](const tessera::ValueList&) {}); });
        case assembling:
            m_rules.clear();
            return time(what, [&] {
                readRows([&](const tessera::ValueList& values) {
                    const zol::moatkeeper::EtherRule rule = makeRule(values);
                    m_rules.push_back(rule);
                });
            });
        case sorting:
            return time(
                what, [&] { m_rules.sort([](const auto& a, const auto& b) { return a.rulePrio() < b.rulePrio(); }); });
        case copying:
            m_copy.clear();
            return time(what, [&] { m_copy = m_rules; });
        default:
            return time(what, [&] { m_differs = m_rules != m_copy || m_differs; });
        }
    }

    // In milliseconds.
    double median(Measure what) const
    {
        std::vector<double> times = m_times[what];
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

    bool differs() const { return m_differs; }

private:
    template <typename Work>
    void time(Measure what, const Work& work)
    {
        const double begin = processorMilliseconds();
        work();
        m_times[what].push_back(processorMilliseconds() - begin);
    }

    template <typename Use>
    void readRows(const Use& use)
    {
        tessera::NameList names;
        tessera::ValueList values;
        for (std::uint32_t row = 0; row < m_count; ++row) {
            values.clear();
            m_tables.readRow(m_table, row, names, values);
            use(values);
        }
    }

    const std::string m_table = "MoatKeeperRuleset";
    std::uint32_t m_count;
    fake::MemoryTables m_tables;
    DroppingQueue m_queue;
    zol::moatkeeper::moatkeeper m_handler;
    std::unique_ptr<zol::moatkeeper::moatkeeper> m_newHandler;
    std::pmr::unsynchronized_pool_resource m_memory;
    std::pmr::list<zol::moatkeeper::EtherRule> m_rules{&m_memory};
    std::pmr::list<zol::moatkeeper::EtherRule> m_copy{&m_memory};
    bool m_differs = false;
    std::array<std::vector<double>, measures> m_times;
};

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count < 80) {
        std::fprintf(stderr, "handler_bench: expected a number of rules, 80 or more, found \"%s\"\n", argv[1]);
        return 1;
    }
    Subject large(count);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage); // a read and a re-read; what follows adds lists of its own

    Subject small(count / 10);
    for (int round = 0; round < 31; ++round) {
        for (std::size_t what = 0; what < measures; ++what) {
            large.measure(static_cast<Measure>(what));
            small.measure(static_cast<Measure>(what));
        }
    }

    std::printf("%-24s%8d rules%8d rules   ratio\n", "", count, count / 10);
    for (std::size_t what = 0; what < measures; ++what) {
        if (what == rows)
            std::printf("phases of a read:\n");
        const double ofLarge = large.median(static_cast<Measure>(what));
        const double ofSmall = small.median(static_cast<Measure>(what));
        std::printf("%s%-*s%11.2f ms%11.2f ms%8.1f\n", what < rows ? "" : "  ", what < rows ? 24 : 22,
                    measureNames[what], ofLarge, ofSmall, ofLarge / ofSmall);
    }
    std::printf("%-24s%11.1f MB\n", "peak memory", static_cast<double>(usage.ru_maxrss) / 1024);
    return large.differs() || small.differs() ? 1 : 0;
}
