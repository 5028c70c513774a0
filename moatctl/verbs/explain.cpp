#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/interface.hpp"
#include "moatctl/bridge/kernel.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/json.hpp"

#include <algorithm>
#include <memory>
#include <ostream>
#include <set>
#include <utility>

namespace moatctl
{

namespace
{

struct ExplainArguments {
    FrameOptions frame;
    std::string path;
    bool configured = false;
    bool all = false;
    bool json = false;
};

// What a frame is walked through, and what is known beside it.
struct Scene {
    std::optional<Configuration> configuration; // none: the server is down, and the kernel's tables are read
    Applied configured;
    std::optional<Applied> kernel; // with the rows that the configuration has for its rules
    std::string name;              // of what is walked, in words
    bool differs = false;          // the kernel's tables are not as configured

    const Applied& walked() const { return kernel ? *kernel : configured; }
};

// The rule, or the policy at the end of the chain, as the tool writes it.
std::string textOf(const Step& step)
{
    if (step.rule == nullptr)
        return "policy " + step.chain->policy;
    return step.rule->rule ? ebtables::toText(*step.rule->rule) : step.rule->text;
}

std::string nameOfOrigin(const Scene& scene, const Step& step)
{
    const Row* row = scene.walked().rowOf(step.origin());
    if (row != nullptr)
        return moatctl::nameOf(*row);
    return scene.kernel && step.origin() == ebtables::noOrigin ? "no row" : "the daemon's own";
}

std::string answerOf(const Step& step)
{
    switch (step.result.answer) {
    case Answer::Yes:
        return step.rule != nullptr ? "yes" : "end";
    case Answer::No:
        return "no: " + std::string(step.result.option);
    case Answer::Unknown:
        return "?: " + std::string(step.result.option);
    }
    return "";
}

const char* fateName(Fate fate)
{
    return fate == Fate::Accept ? "ACCEPT" : fate == Fate::Drop ? "DROP" : "UNKNOWN";
}

// Who decides, in words.
std::string decisionOf(const Scene& scene, const Walk& walked)
{
    const Step& last = walked.steps.back();
    const std::string by = nameOfOrigin(scene, last);
    if (walked.fate == Fate::Unknown)
        return "it depends on " + std::string(last.result.missing) + ", which " + by + " looks at";
    if (last.rule != nullptr)
        return by + " (rule " + std::to_string(last.position + 1) + " of " + last.chain->name + ")";
    return "no rule decides; the policy of " + last.chain->name + ", " + by;
}

// The steps to be shown: without --all those that lead somewhere.
std::vector<const Step*> shownOf(const Walk& walked, bool all)
{
    std::vector<const Step*> steps;
    for (const Step& step : walked.steps) {
        const bool matters = step.rule != nullptr && step.result.answer == Answer::Yes;
        if (all || matters || &step == &walked.steps.back())
            steps.push_back(&step);
    }
    return steps;
}

ovsdb::Json placeOf(const Applied& applied, const Step& step)
{
    const Row* origin = applied.rowOf(step.origin());
    ovsdb::Json::Object object{
        {"chain", step.chain->name},
        {"rule", step.rule != nullptr ? ovsdb::Json(static_cast<std::int64_t>(step.position) + 1) : ovsdb::Json()},
        {"table", origin != nullptr ? ovsdb::Json(origin->table->name) : ovsdb::Json()},
        {"id", origin != nullptr && origin->table->hasIds() ? ovsdb::Json(std::int64_t{origin->id()}) : ovsdb::Json()},
        {"text", textOf(step)},
    };
    return object;
}

void writeJson(std::ostream& out, const Frame& frame, const Scene& scene, const Walk& walked, bool all)
{
    const std::vector<const Step*> shown = shownOf(walked, all);
    ovsdb::Json::Array steps;
    for (const Step* step : shown) {
        ovsdb::Json place = placeOf(scene.walked(), *step);
        ovsdb::Json::Object object = *place.asObject();
        object.emplace_back("matches", answerOf(*step));
        steps.emplace_back(std::move(object));
    }
    ovsdb::Json configured; // null where only one of the two is known
    if (scene.kernel && scene.configuration) {
        const Walk other = walk(scene.configured.table, frame);
        configured = ovsdb::Json::Object{{"fate", fateName(other.fate)},
                                         {"decided_by", placeOf(scene.configured, other.steps.back())}};
    }
    out << ovsdb::toText(ovsdb::Json::Object{
               {"frame", toText(frame)},
               {"walked", scene.kernel ? "kernel" : "configuration"},
               {"differs", scene.kernel && scene.configuration ? ovsdb::Json(scene.differs) : ovsdb::Json()},
               {"fate", fateName(walked.fate)},
               {"decided_by", placeOf(scene.walked(), walked.steps.back())},
               {"configured", std::move(configured)},
               {"steps", std::move(steps)},
               {"steps_left_out", static_cast<std::int64_t>(walked.steps.size() - shown.size())}})
        << '\n';
}

void writeText(Program& program, const Frame& frame, const Scene& scene, const Walk& walked, bool all)
{
    program.out << "frame " << toText(frame) << "\nthrough " << scene.name << '\n';
    const std::vector<const Step*> shown = shownOf(walked, all);
    Sheet sheet{"steps", "Steps", {"CHAIN", "RULE", "MATCHES", "ROW", "TEXT"}, {}};
    using tessera::Value;
    for (const Step* step : shown) {
        const std::string number = step->rule != nullptr ? std::to_string(step->position + 1) : "-";
        sheet.rows.push_back({Value(std::string(2 * std::size_t{step->depth}, ' ') + step->chain->name), Value(number),
                              Value(answerOf(*step)), Value(nameOfOrigin(scene, *step)), Value(textOf(*step))});
    }
    writeSheets(program.out, {sheet}, {}, program.terminal);
    if (const std::size_t rest = walked.steps.size() - shown.size(); rest != 0)
        program.out << rest << (rest == 1 ? " step that leads" : " steps that lead")
                    << " nowhere not shown (--all shows all)\n";
    program.out << fateName(walked.fate) << ": " << decisionOf(scene, walked) << '\n';
}

// The kernel's tables with the rows of the configuration.
Applied withRows(ebtables::Table kernel, const Applied& configured, const std::vector<Entry>& entries)
{
    for (const Entry& entry : entries) {
        ebtables::Chain* chain = kernel.find(entry.chain);
        if (chain == nullptr || entry.state == EntryState::Missing)
            continue;
        if (entry.position != 0)
            chain->rules[entry.position - 1].origin = entry.origin;
        else if (entry.state == EntryState::Same)
            chain->policyOrigin = entry.origin;
    }
    return {.table = std::move(kernel), .refused = {}, .rows = configured.rows};
}

Configuration readFile(Program& program, const std::string& path)
{
    LoadedFile loaded = parseConfiguration(readText(program.in, path), moatctl::nameOf(path));
    if (writeProblems(program.err, loaded.problems) != 0)
        throw Failure(ExitStatus::BadInput, "the configuration has errors; nothing is explained");
    return std::move(loaded.configuration);
}

// The kernel's tables are what happens; the configuration is what is walked where they cannot be read, or when asked
// for. Either may be absent, not both.
void build(Scene& scene, Program& program, const ExplainArguments& options)
{
    std::string unread;
    std::optional<ebtables::Table> kernel;
    if (options.path.empty() && !options.configured)
        kernel = readKernel(unread);
    try {
        if (options.path.empty()) {
            ovsdb::Client client = program.connect();
            scene.configuration = loadFromServer(client);
        } else {
            scene.configuration = readFile(program, options.path);
        }
        scene.configured = apply(expectedOf(*scene.configuration));
    } catch (const ovsdb::Error& error) {
        if (!kernel)
            throw;
        program.err << "note: " << error.what() << "; rows cannot be named\n";
    }
    if (!kernel) {
        scene.name = options.path.empty() ? "the configuration" : "the configuration in " + nameOf(options.path);
        if (!unread.empty())
            scene.name += "; the kernel's tables cannot be read: " + unread;
        return;
    }
    scene.name = "the kernel's tables";
    const std::vector<Entry> entries = compare(scene.configured.table, *kernel);
    scene.differs = scene.configuration &&
                    std::ranges::any_of(entries, [](const Entry& entry) { return entry.state != EntryState::Same; });
    scene.kernel = scene.configuration ? withRows(*std::move(kernel), scene.configured, entries)
                                       : Applied{.table = *std::move(kernel), .refused = {}, .rows = {}};
}

// What the bridge itself does with some addresses, whatever the chains say.
void noteBridge(std::ostream& err, const Frame& frame)
{
    constexpr MacAddress linkLocal{0x01, 0x80, 0xc2, 0, 0, 0};
    if (frame.in == frame.out)
        err << "note: the bridge does not send a frame back to the port that it came from, except in hairpin mode\n";
    if (!frame.destination)
        return;
    MacAddress group = *frame.destination;
    group[5] &= 0xf0;
    if (group == linkLocal && (*frame.destination)[5] == 0x01)
        err << "note: the bridge drops frames to 01:80:c2:00:00:01 before any chain\n";
    else if (group == linkLocal && !frame.out.empty())
        err << "note: the bridge does not forward frames to this address unless its group_fwd_mask says so or, for "
               "01:80:c2:00:00:00, its spanning tree protocol is off\n";
}

void notePorts(std::ostream& err, const Frame& frame)
{
    for (const std::string& port : {frame.in, frame.out}) {
        const InterfaceState state = port.empty() ? InterfaceState::Port : interfaceHere(port);
        if (state != InterfaceState::Port)
            err << "note: " << inQuotes(port)
                << (state == InterfaceState::Missing ? ": this machine has no such interface"
                                                     : ": not a port of a bridge on this machine")
                << ", so there is no such frame\n";
    }
}

void noteRefused(std::ostream& err, const Applied& configured)
{
    std::set<const Row*> noted;
    for (const RefusedLine& refused : configured.refused) {
        if (noted.insert(refused.origin).second)
            err << "note: "
                << (refused.origin != nullptr ? moatctl::nameOf(*refused.origin) : "the missing row of MoatKeeper")
                << ": a line is left out because the kernel would refuse it (see moatctl check)\n";
    }
}

void noteDifference(std::ostream& err, const Scene& scene, const Frame& frame, const Walk& walked)
{
    if (!scene.differs)
        return;
    const Walk other = walk(scene.configured.table, frame);
    err << "note: the kernel's tables are not as configured (see moatctl status); by the configuration ";
    if (other.fate == walked.fate)
        err << "the frame's fate is the same\n";
    else
        err << "it would be " << fateName(other.fate) << '\n';
}

ExitStatus explain(Program& program, const ExplainArguments& options)
{
    const Frame frame = frameOf(options.frame);
    Scene scene;
    build(scene, program, options);
    const Walk walked = walk(scene.walked().table, frame);
    if (options.json)
        writeJson(program.out, frame, scene, walked, options.all);
    else
        writeText(program, frame, scene, walked, options.all);
    program.out.flush();
    if (scene.configuration)
        noteRefused(program.err, scene.configured);
    noteDifference(program.err, scene, frame, walked);
    if (options.path.empty())
        notePorts(program.err, frame);
    noteBridge(program.err, frame);
    return walked.fate == Fate::Unknown ? ExitStatus::BadInput : ExitStatus::Ok;
}

} // namespace

void addExplain(const Command& root, Program& program)
{
    auto options = std::make_shared<ExplainArguments>();
    const Command command = root.add(
        "explain", "Show what happens to a frame, and which row decides: in the kernel, if its tables may be read",
        "explain --in eth0 --out eth1 --src 10.0.0.1 --dst 10.0.0.2 --proto tcp --port 80");
    addFrameOptions(command, options->frame);
    const Option file =
        command.option("--file", "FILE", "Look at the configuration in a file; - for standard input", options->path);
    command.flag("--configured", "Look at the server's configuration, whatever the kernel has", options->configured)
        .excludes(file);
    command.flag("--all", "Show all steps, also those that lead nowhere", options->all);
    command
        .option("--format", "table|json", "Form of the output",
                [options](const std::string& format) { options->json = format == "json"; })
        .oneOf({"table", "json"})
        .defaultsTo("table");
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return explain(program, *options); }; });
}

} // namespace moatctl
