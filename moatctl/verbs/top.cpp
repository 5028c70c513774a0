#include "moatctl/bridge/rates.hpp"
#include "moatctl/command_line/numbers.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/screen.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/status_view.hpp"
#include "ovsdb/json.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <ostream>
#include <sstream>
#include <thread>
#include <utility>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int longestInterval = 3600;

struct TopArguments {
    std::chrono::milliseconds interval{2000};
    std::uint64_t count = 0; // 0: until interrupted
    bool all = false;
    bool json = false;
};

// What the kernel has counted, with the rows by their names.
class Counting
{
public:
    // Once before the first interval, then at the end of each.
    void look(Program& program)
    {
        m_view = lookAround(program, false);
        if (!m_view->kernel)
            throw Failure(ExitStatus::Kernel, "the kernel's tables cannot be read: " + m_view->noKernel);
        m_rates = m_counters.next(m_view->applied, m_view->entries, Clock::now());
    }

    bool rowsAreKnown() const { return m_view->configuration.has_value(); }
    const std::string& server() const { return m_view->server; }
    const std::vector<Rate>& rates() const { return m_rates; }
    double seconds() const { return m_counters.interval().count(); }

private:
    std::unique_ptr<View> m_view; // the rates point into it
    Rates m_counters;
    std::vector<Rate> m_rates;
};

std::string withOneDigit(double number, const char* unit = "")
{
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.1f%s", number, unit);
    return text.data();
}

double rounded(double number, double steps)
{
    return std::round(number * steps) / steps;
}

void writeJson(std::ostream& out, const Counting& counting, bool all)
{
    using ovsdb::Json;
    Json::Array rows;
    for (const Rate& rate : counting.rates()) {
        if (rate.frames == 0 && !all)
            continue;
        const Row* row = rate.row;
        rows.emplace_back(
            Json::Object{{"table", row != nullptr ? Json(row->table->name) : Json()},
                         {"id", row != nullptr && row->table->hasIds() ? Json(std::int64_t{row->id()}) : Json()},
                         {"chain", text::oneLine(rate.entry->chain)},
                         {"rule", static_cast<std::int64_t>(rate.entry->position)},
                         {"text", text::oneLine(rate.entry->text, std::string::npos)},
                         {"frames_per_second", rounded(rate.frames, 1000)},
                         {"bytes_per_second", rounded(rate.bytes, 1000)},
                         {"share", rate.share ? Json(rounded(*rate.share, 10000)) : Json()}});
    }
    out << ovsdb::toText(Json::Object{{"time", timeStamp(std::chrono::system_clock::now())},
                                      {"seconds", rounded(counting.seconds(), 1000)},
                                      {"rows", std::move(rows)}})
        << '\n';
}

void writeTable(std::ostream& out, const Counting& counting, bool all, const Terminal& terminal)
{
    using tessera::Value;
    Sheet sheet{"rates", "Rates", {"ROW", "FRAMES/S", "BYTES/S", "SHARE", "RULE"}, {}};
    double decided = 0;
    for (const Rate& rate : counting.rates()) {
        decided += rate.share ? rate.frames : 0;
        if (rate.frames == 0 && !all)
            continue;
        const std::string row = rate.row != nullptr ? nameOf(*rate.row) : counting.rowsAreKnown() ? "no row" : "-";
        sheet.rows.push_back({Value(row), Value(withOneDigit(rate.frames)), Value(withOneDigit(rate.bytes)),
                              Value(rate.share ? withOneDigit(100 * *rate.share, "%") : std::string("-")),
                              Value(rate.entry->chain + ' ' + rate.entry->text)});
    }
    out << timeStamp(std::chrono::system_clock::now()) << ", " << withOneDigit(counting.seconds())
        << " s: " << withOneDigit(decided) << " frames a second decided by rules\n";
    if (!counting.rowsAreKnown())
        out << "rows cannot be named: " << counting.server() << '\n';
    if (sheet.rows.empty())
        out << "no rule has met a frame\n";
    else
        writeSheets(out, {sheet}, {}, terminal);
}

ExitStatus top(Program& program, const TopArguments& options)
{
    endOnSignals();
    const bool renews = program.terminal.obeys && !options.json;
    std::unique_ptr<Screen> screen = renews ? std::make_unique<Screen>(program) : nullptr;
    Counting counting;
    counting.look(program);
    Clock::time_point next = Clock::now();
    for (std::uint64_t block = 0; (options.count == 0 || block < options.count) && program.out; ++block) {
        // A look that takes longer than the interval leaves no intervals to make up for.
        next = std::max(next + options.interval, Clock::now());
        std::this_thread::sleep_until(next);
        counting.look(program);
        if (options.json) {
            writeJson(program.out, counting, options.all);
        } else if (screen) {
            screen->show([&] {
                std::ostringstream text;
                writeTable(text, counting, options.all, program.terminal);
                return text.str();
            });
        } else {
            program.out << (block != 0 ? "\n" : "");
            writeTable(program.out, counting, options.all, program.terminal);
        }
        program.out.flush();
    }
    return ExitStatus::Ok;
}

} // namespace

void addTop(const Command& root, Program& program)
{
    auto options = std::make_shared<TopArguments>();
    const Command command =
        root.add("top", "Show which rows meet the most frames a second, again and again: renewed on a terminal",
                 "top --interval 1");
    command
        .option(
            "--interval", "SECONDS", "Time between two looks at the counters",
            [options](const std::string& text) { options->interval = secondsOf("--interval", text, longestInterval); })
        .defaultsTo("2");
    command.option("--count", "NUMBER", "End after so many intervals; without it, when interrupted",
                   [options](const std::string& text) { options->count = countOf("--count", text); });
    command.flag("--all", "Show rows that meet no frame, too", options->all);
    command
        .option("--format", "table|json", "Form of an interval: a table, or a JSON object on a line",
                [options](const std::string& format) { options->json = format == "json"; })
        .oneOf({"table", "json"})
        .defaultsTo("table");
    command.onGiven([&program, options] {
        program.action = [&program, options] {
            requireThisMachine(program, "top", "run it on one of those");
            return top(program, *options);
        };
    });
}

} // namespace moatctl
