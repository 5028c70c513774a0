// The time that the handler takes for the rule table, by phase, how it grows with the table, and the peak memory.
//
// usage: handler_bench [rules]     (10000 otherwise, compared with a tenth of them)
// Rows come from memory and lines go to a queue that drops them: what is measured is the handler. Times are the
// processor's, which other programs on the machine disturb least; nothing here waits. Each run is a process of its own,
// the two tables take turns, and before each phase unused memory is given back and the processor's own cache is filled
// with something else: a daemon does not read its table in a loop, it reads it when somebody has changed it.
#include "handler/moatkeeper.hpp"
#include "platform/action_queue.hpp"
#include "platform_fake/memory_tables.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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
enum Measure : std::size_t { firstRead, commit, reRead, rows, assembling, sorting, comparing, measures };

constexpr std::array<const char*, measures> measureNames{
    "first read", "commit, lines dropped", "re-read, no change", "rows from memory", "rows, assemble, append", "sort",
    "compare"};

using Times = std::array<double, measures>; // in milliseconds

struct Result {
    Times times{};
    double peakMegabytes = 0; // after a first read, a commit and two re-reads; without what fills the cache
    bool differs = false;     // a copy of the rules does: something is wrong
};

// One run over a table of so many rules.
class Run
{
public:
    explicit Run(int count) : m_count(static_cast<std::uint32_t>(count)) { m_tables.setRows(m_table, makeRows(count)); }

    Result measure()
    {
        zol::moatkeeper::moatkeeper handler;
        DroppingQueue queue;
        time(firstRead, [&] { handler.loadFromConfig(m_tables, m_table); });
        time(commit, [&] { handler.commitToSystem(m_tables, &queue); });
        handler.loadFromConfig(m_tables, m_table); // the first re-read still gets memory that later ones have
        time(reRead, [&] { handler.loadFromConfig(m_tables, m_table); });
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        m_result.peakMegabytes =
            static_cast<double>(usage.ru_maxrss) / 1024 - static_cast<double>(m_else.size()) / 1048576;

        // The phases of a read, each on its own.
        std::list<zol::moatkeeper::EtherRule> rules;
        time(rows, [&] { readRows([](const tessera::ValueList&) {}); });
        time(assembling, [&] {
            readRows([&](const tessera::ValueList& values) {
                const zol::moatkeeper::EtherRule rule = makeRule(values);
                rules.push_back(rule);
            });
        });
        time(sorting, [&] { rules.sort([](const auto& a, const auto& b) { return a.rulePrio() < b.rulePrio(); }); });
        const std::list<zol::moatkeeper::EtherRule> copy = rules;
        time(comparing, [&] {
            m_result.differs = !std::equal(rules.begin(), rules.end(), copy.begin(), copy.end(),
                                           [](const auto& a, const auto& b) { return !(a != b); });
        });
        return m_result;
    }

private:
    template <typename Work>
    void time(Measure what, const Work& work)
    {
        malloc_trim(0);
        std::fill(m_else.begin(), m_else.end(), ++m_filling);
        const double begin = processorMilliseconds();
        work();
        m_result.times[what] = processorMilliseconds() - begin;
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
    std::vector<char> m_else = std::vector<char>(8U << 20); // fills a core's cache
    char m_filling = 0;
    Result m_result;
};

// A run in a child process; ends the program if it fails.
Result measure(int count)
{
    std::array<int, 2> ends{};
    const pid_t child = pipe(ends.data()) == 0 ? fork() : -1;
    if (child == 0) {
        const Result result = Run(count).measure();
        _exit(write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(ends[1]);
    Result result;
    const bool whole = child > 0 && read(ends[0], &result, sizeof result) == sizeof result;
    close(ends[0]);
    waitpid(child, nullptr, 0);
    if (!whole || result.differs) {
        std::fprintf(stderr, "handler_bench: a run with %d rules failed\n", count);
        std::exit(1);
    }
    return result;
}

double median(std::vector<Result>& results, Measure what)
{
    const auto middle = results.begin() + static_cast<std::ptrdiff_t>(results.size() / 2);
    std::nth_element(results.begin(), middle, results.end(),
                     [&](const Result& a, const Result& b) { return a.times[what] < b.times[what]; });
    return middle->times[what];
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (count < 80) {
        std::fprintf(stderr, "handler_bench: expected a number of rules, 80 or more, found \"%s\"\n", argv[1]);
        return 1;
    }
    std::vector<Result> large;
    std::vector<Result> small;
    for (int round = 0; round < 31; ++round) {
        large.push_back(measure(count));
        small.push_back(measure(count / 10));
    }

    std::printf("%-24s%8d rules%8d rules   ratio\n", "", count, count / 10);
    for (std::size_t i = 0; i < measures; ++i) {
        const auto what = static_cast<Measure>(i);
        if (what == rows)
            std::printf("phases of a read:\n");
        const double ofLarge = median(large, what);
        const double ofSmall = median(small, what);
        std::printf("%s%-*s%11.2f ms%11.2f ms%8.1f\n", what < rows ? "" : "  ", what < rows ? 24 : 22, measureNames[i],
                    ofLarge, ofSmall, ofLarge / ofSmall);
    }
    std::printf("%-24s%11.1f MB\n", "peak memory", large.front().peakMegabytes);
}
