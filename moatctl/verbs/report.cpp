#include "moatctl/bridge/daemon.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/check/check.hpp"
#include "moatctl/command_line/replace_file.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/matrix_view.hpp"
#include "moatctl/verbs/report_page.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <utility>

namespace moatctl
{

namespace
{

struct ReportArguments {
    std::string path;
    std::string pidFolder = "/var/run";
};

std::string freshNonce()
{
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::size_t length = 32;
    std::random_device device; // the kernel's
    std::uniform_int_distribution<std::size_t> digit(0, digits.size() - 1);
    std::string nonce;
    while (nonce.size() < length)
        nonce += digits[digit(device)];
    return nonce;
}

std::vector<std::pair<std::string, std::string>> factsOf(const View& view, bool elsewhere,
                                                         const std::optional<std::string>& pid)
{
    std::vector<std::pair<std::string, std::string>> facts{{"server", view.server}};
    if (!elsewhere)
        facts.emplace_back("daemon", pid ? "running, process " + *pid : "not running");
    for (const Device& device : view.devices)
        facts.emplace_back("device " + device.name, inWords(device, view));
    facts.emplace_back("kernel tables", elsewhere            ? view.noKernel
                                        : !view.kernel       ? "unknown: " + view.noKernel
                                        : view.configuration ? view.found
                                                             : "not compared: the server is down");
    return facts;
}

// What was in the row, a line each, the first ones.
std::string rowsOf(const HistoryEntry& entry)
{
    constexpr std::size_t most = 5;
    constexpr std::size_t longest = 200'000; // bytes; of an import of thousands of rows five say nothing
    if (entry.changes.empty() || entry.changes.size() > longest)
        return entry.rows == 0 ? "unknown" : std::to_string(entry.rows) + " rows";
    const std::vector<schema::RecordedChange> changes = changesOf(entry);
    std::string text;
    for (std::size_t i = 0; i < std::min(changes.size(), most); ++i)
        text += (i == 0 ? "" : "; ") + toText(changes[i]);
    return changes.size() <= most ? text : text + "; " + std::to_string(changes.size() - most) + " more";
}

void addHistory(const Program& program, Report& report)
{
    constexpr std::size_t most = 20;
    try {
        ovsdb::Client client = program.connectToHistory();
        for (const HistoryEntry& entry : readHistory(client)) {
            if (report.history.size() == most)
                break;
            report.history.push_back({std::to_string(entry.number), entry.time, entry.user, entry.verb, rowsOf(entry)});
        }
        report.noHistory = "Nothing has changed yet.";
    } catch (const ovsdb::Error& error) {
        report.noHistory = std::string("Not known: ") + error.what();
    } catch (const Failure& failure) {
        report.noHistory = std::string("Not known: ") + failure.what();
    }
}

std::vector<Problem> findingsOf(const Program& program, const View& view)
{
    if (!view.configuration)
        return {};
    std::vector<Problem> problems =
        checkConfiguration(*view.configuration, view.expected, view.applied, checkHere(program));
    for (Problem& problem : problems) {
        if (isAcknowledged(*view.configuration, problem))
            problem.severity = Severity::Acknowledged;
    }
    std::ranges::stable_sort(problems, std::greater(), &Problem::severity);
    return problems;
}

ExitStatus report(Program& program, const ReportArguments& options)
{
    const bool elsewhere = isElsewhere(program);
    const std::optional<std::string> pid = elsewhere ? std::nullopt : daemonPid(options.pidFolder);
    const std::unique_ptr<View> view = lookAround(program, pid.has_value());
    if (!view->configuration && !view->kernel)
        throw Failure(ExitStatus::Server,
                      "nothing to report: the server is " + view->server + ", and the kernel: " + view->noKernel);
    Scene scene;
    scene.configured = view->applied;
    scene.differs = view->differs();
    if (view->kernel)
        scene.kernel = withRows(*view->kernel, view->applied, view->entries);
    const Matrix matrix = matrixOf(scene.walked(), {}, portsOf(scene, !elsewhere, {}), {});
    Report made{.view = *view,
                .scene = scene,
                .matrix = matrix,
                .time = timeStamp(std::chrono::system_clock::now()),
                .facts = factsOf(*view, elsewhere, pid),
                .notInForce = notInForce(*view),
                .findings = findingsOf(program, *view),
                .history = {},
                .noHistory = {}};
    addHistory(program, made);
    replaceFile(options.path, pageOf(made, freshNonce()));
    return ExitStatus::Ok;
}

} // namespace

void addReport(const Command& root, Program& program)
{
    auto options = std::make_shared<ReportArguments>();
    const Command command =
        root.add("report",
                 "Write a page for a browser: who may talk to whom, rules and their counters, filters, "
                 "what is not in force and why, what check finds, and the last changes",
                 "report bridge.html");
    command
        .option("FILE", "", "The page, in one file that needs nothing else; it is replaced as a whole", options->path)
        .required();
    command.option("--pid-folder", "FOLDER", "Folder of the daemon's PID file", options->pidFolder)
        .defaultsTo(options->pidFolder);
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return report(program, *options); }; });
}

} // namespace moatctl
