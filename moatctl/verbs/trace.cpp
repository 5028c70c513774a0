#include "moatctl/bridge/held_rules.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/bridge/tracer.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/numbers.hpp"
#include "moatctl/command_line/selection_options.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/json.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int longestTrace = 86'400;
constexpr std::uint64_t highestLimit = 10'000;

struct TraceArguments {
    SelectionOptions selection;
    std::uint64_t count = 0;                           // 0: no end
    std::optional<std::chrono::milliseconds> duration; // likewise
    std::uint32_t limit = 100;
    bool json = false;
};

volatile std::sig_atomic_t isStopped = 0;

extern "C" void stopTrace(int)
{
    isStopped = 1;
}

// The rows behind the kernel's rules, looked up anew when the tables have changed.
class Rows
{
public:
    explicit Rows(Program& program) : m_program(program) { load(); }

    const HeldRule* find(const TracedFrame& frame)
    {
        constexpr std::chrono::seconds seldom{1}; // a rule that stays may have got another place, or row
        const bool isFresh = Clock::now() - m_loaded < seldom;
        const HeldRule* known = lookUp(frame);
        if ((known != nullptr && isFresh) || transactions() == m_transactions)
            return known;
        load();
        return lookUp(frame);
    }

    // The table whose rules decide.
    const char* filter()
    {
        if (const auto now = transactions(); now != m_seen) {
            m_seen = now;
            m_hasCompiled = hasCompiled();
        }
        return m_hasCompiled ? nftables::compiledTable : nftables::filterTable;
    }

private:
    const HeldRule* lookUp(const TracedFrame& frame) const
    {
        if (frame.table == nftables::compiledTable)
            return m_rules.decider(frame.frame, frame.accepted);
        return frame.rule != 0 ? m_rules.rule(frame.rule) : m_rules.policy(frame.chain);
    }

    void load()
    {
        m_transactions = transactions();
        try {
            ovsdb::Client client = m_program.connect();
            m_configuration = std::make_unique<Configuration>(loadFromServer(client));
            m_applied = apply(expectedOf(*m_configuration));
        } catch (const ovsdb::Error& error) {
            if (!std::exchange(m_isNoted, true))
                m_program.err << "note: " << error.what() << "; rows cannot be named\n" << std::flush;
        }
        std::string reason;
        if (!m_rules.load(m_applied, reason))
            throw Failure(ExitStatus::Kernel, "the kernel's tables cannot be read: " + reason);
        m_loaded = Clock::now();
    }

    Program& m_program;
    std::unique_ptr<Configuration> m_configuration;
    Applied m_applied;
    HeldRules m_rules;
    std::optional<std::uint32_t> m_transactions;
    std::optional<std::uint32_t> m_seen;
    bool m_hasCompiled = false;
    Clock::time_point m_loaded;
    bool m_isNoted = false;
};

const char* fateOf(const TracedFrame& frame)
{
    return frame.accepted ? "ACCEPT" : "DROP";
}

bool isOurs(const TracedFrame& frame)
{
    return frame.table == nftables::filterTable || frame.table == nftables::compiledTable;
}

// As the configuration makes it; in the compiled form the kernel's is another one.
const std::string& chainOf(const TracedFrame& frame, const HeldRule* rule)
{
    return rule != nullptr ? rule->chain : frame.chain;
}

// Who decides, in the words of explain.
std::string decisionOf(const TracedFrame& frame, const HeldRule* rule)
{
    if (frame.table.empty())
        return "no rule of the bridge's filter";
    const std::string chain = text::oneLine(chainOf(frame, rule));
    if (!isOurs(frame))
        return "another program's table " + text::oneLine(frame.table) + " (chain " + chain + ')';
    if (rule == nullptr && frame.table == nftables::compiledTable)
        return "no row (what is traced of the frame does not say which)";
    if (rule == nullptr)
        return "no row (a rule of " + chain + " that is gone)";
    const std::string row = !rule->row.empty() ? rule->row : rule->isDaemons ? "the daemon's own" : "no row";
    if (rule->position == 0)
        return row + " (policy of " + chain + ')';
    return row + " (rule " + std::to_string(rule->position) + " of " + chain + ')';
}

std::string safe(Frame frame)
{
    frame.in = text::oneLine(frame.in);
    frame.out = text::oneLine(frame.out);
    return toText(frame);
}

void writeText(std::ostream& out, const TracedFrame& frame, const HeldRule* rule)
{
    out << timeStamp(std::chrono::system_clock::now()) << ' ' << fateOf(frame) << ": " << decisionOf(frame, rule)
        << ": " << safe(frame.frame) << '\n';
}

void writeJson(std::ostream& out, const TracedFrame& traced, const HeldRule* rule)
{
    using ovsdb::Json;
    const Frame& frame = traced.frame;
    Json::Object object{{"time", timeStamp(std::chrono::system_clock::now())},
                        {"fate", fateOf(traced)},
                        {"frame", safe(frame)},
                        {"in", text::oneLine(frame.in)},
                        {"out", frame.out.empty() ? Json() : Json(text::oneLine(frame.out))}};
    const auto add = [&](const char* name, const auto& value) { object.emplace_back(name, value); };
    if (frame.source)
        add("src_mac", toText(*frame.source));
    if (frame.destination)
        add("dst_mac", toText(*frame.destination));
    if (frame.vlan)
        add("vlan", int{frame.vlan->id});
    if (frame.type)
        add("ethertype", int{*frame.type});
    if (frame.ip4Source)
        add("src", toText(*frame.ip4Source));
    if (frame.ip4Destination)
        add("dst", toText(*frame.ip4Destination));
    if (frame.ip6Source)
        add("src", toText(*frame.ip6Source));
    if (frame.ip6Destination)
        add("dst", toText(*frame.ip6Destination));
    if (frame.protocol)
        add("proto", int{*frame.protocol});
    if (frame.sourcePort)
        add("src_port", int{*frame.sourcePort});
    if (frame.destinationPort)
        add("port", int{*frame.destinationPort});
    const bool isKnown = rule != nullptr && isOurs(traced);
    object.emplace_back(
        "decided_by",
        Json::Object{
            {"words", decisionOf(traced, rule)},
            {"chain", traced.chain.empty() ? Json() : Json(text::oneLine(chainOf(traced, rule)))},
            {"rule", isKnown && rule->position != 0 ? Json(static_cast<std::int64_t>(rule->position)) : Json()},
            {"table", isKnown && !rule->table.empty() ? Json(rule->table) : Json()},
            {"id", isKnown && rule->id != 0 ? Json(std::int64_t{rule->id}) : Json()},
            {"text", isKnown ? Json(text::oneLine(rule->text, std::string::npos)) : Json()}});
    out << ovsdb::toText(std::move(object)) << '\n';
}

// What was chosen and is not among the lines, and why.
void tellLeftOut(Program& program, const Tracer::Counts& counts, std::uint64_t shown, bool wereLost,
                 const TraceArguments& options)
{
    const std::uint64_t traced = counts.chosen - std::min(counts.chosen, counts.overLimit);
    const std::uint64_t rest = traced - std::min(traced, shown);
    if (options.json)
        program.out << ovsdb::toText(ovsdb::Json::Object{{"shown", static_cast<std::int64_t>(shown)},
                                                         {"chosen", static_cast<std::int64_t>(counts.chosen)},
                                                         {"over_limit", static_cast<std::int64_t>(counts.overLimit)},
                                                         {"not_shown", static_cast<std::int64_t>(rest)},
                                                         {"messages_were_lost", wereLost}})
                    << '\n';
    program.err << shown << " of " << std::max(counts.chosen, shown) << " frames shown";
    if (counts.overLimit != 0)
        program.err << "; " << counts.overLimit << " left out: more than " << options.limit << " a second (--limit)";
    if (rest != 0)
        program.err << "; " << rest
                    << (wereLost ? " left out: the kernel's messages came faster than they were read"
                                 : " left out: they came after the last one");
    program.err << '\n';
}

ExitStatus trace(Program& program, const TraceArguments& options)
{
    constexpr std::chrono::milliseconds patience{200};
    TraceChoice choice;
    choice.rule = ruleOf(options.selection);
    choice.toDevice = options.selection.out.empty();
    choice.forwarded = !options.selection.toDevice;
    choice.limit = options.limit;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, stopTrace);
    Rows rows(program);
    Tracer tracer(choice);
    tracer.setFilter(rows.filter());
    if (!tracer.endsByItself())
        program.err << "note: this kernel does not end a trace that is killed; the next one, or moatctl status, does\n";
    program.err << "tracing\n" << std::flush;

    std::uint64_t shown = 0;
    const auto isComplete = [&] { return options.count != 0 && shown == options.count; };
    const auto show = [&](const std::vector<TracedFrame>& frames) {
        for (const TracedFrame& frame : frames) {
            if (isComplete())
                return;
            const HeldRule* rule = isOurs(frame) ? rows.find(frame) : nullptr;
            if (options.json)
                writeJson(program.out, frame, rule);
            else
                writeText(program.out, frame, rule);
            ++shown;
        }
        program.out.flush();
    };
    const Clock::time_point begin = Clock::now();
    while (isStopped == 0 && !isComplete() && program.out) {
        auto wait = patience;
        if (options.duration) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(begin + *options.duration - Clock::now());
            if (left.count() <= 0)
                break;
            wait = std::min(wait, left);
        }
        tracer.setFilter(rows.filter());
        show(tracer.next(wait));
    }
    show(tracer.last());
    tellLeftOut(program, tracer.counts(), shown, tracer.messagesWereLost(), options);
    return ExitStatus::Ok;
}

} // namespace

void addTrace(const Command& root, Program& program)
{
    auto options = std::make_shared<TraceArguments>();
    const Command command =
        root.add("trace", "Show frames as they pass the bridge, each with its fate and the row that decides",
                 "trace --in eth0 --src-mac 00:11:22:33:44:55 --count 10");
    addSelectionOptions(command, options->selection);
    command.option("--count", "NUMBER", "End after so many frames; without it, when interrupted",
                   [options](const std::string& text) { options->count = countOf("--count", text); });
    command.option("--for", "SECONDS", "End after that time",
                   [options](const std::string& text) { options->duration = secondsOf("--for", text, longestTrace); });
    command
        .option("--limit", "NUMBER", "Trace no more frames a second than these",
                [options](const std::string& text) {
                    options->limit = static_cast<std::uint32_t>(countOf("--limit", text, highestLimit));
                })
        .defaultsTo("100");
    command
        .option("--format", "text|json", "Form of a frame: a line for people, or a JSON object on a line",
                [options](const std::string& format) { options->json = format == "json"; })
        .oneOf({"text", "json"})
        .defaultsTo("text");
    command.onGiven([&program, options] {
        program.action = [&program, options] {
            requireThisMachine(program, "trace", "run it on one of those");
            return trace(program, *options);
        };
    });
}

} // namespace moatctl
