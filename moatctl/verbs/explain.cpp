#include "moatctl/bridge/interface.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/command_line/this_machine.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/matrix_view.hpp"
#include "moatctl/verbs/scene.hpp"
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
    ScenePlace place;
    bool all = false;
    bool json = false;
};

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

// Who decides, in words.
std::string decisionOf(const Scene& scene, const Walk& walked)
{
    const Step& last = walked.steps.back();
    const std::string by = scene.nameOf(last.origin());
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
        {"text", textOf(*step.chain, step.rule)},
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
        configured = ovsdb::Json::Object{{"fate", nameOf(other.fate)},
                                         {"decided_by", placeOf(scene.configured, other.steps.back())}};
    }
    out << ovsdb::toText(ovsdb::Json::Object{
               {"frame", toText(frame)},
               {"walked", scene.kernel ? "kernel" : "configuration"},
               {"differs", scene.kernel && scene.configuration ? ovsdb::Json(scene.differs) : ovsdb::Json()},
               {"fate", nameOf(walked.fate)},
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
                              Value(answerOf(*step)), Value(scene.nameOf(step->origin())),
                              Value(textOf(*step->chain, step->rule))});
    }
    writeSheets(program.out, {sheet}, {}, program.terminal);
    if (const std::size_t rest = walked.steps.size() - shown.size(); rest != 0)
        program.out << rest << (rest == 1 ? " step that leads" : " steps that lead")
                    << " nowhere not shown (--all shows all)\n";
    program.out << nameOf(walked.fate) << ": " << decisionOf(scene, walked) << '\n';
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

void noteDifference(std::ostream& err, const Scene& scene, const Frame& frame, const Walk& walked)
{
    if (!scene.differs)
        return;
    const Walk other = walk(scene.configured.table, frame);
    err << "note: the kernel's tables are not as configured (see moatctl status); by the configuration ";
    if (other.fate == walked.fate)
        err << "the frame's fate is the same\n";
    else
        err << "it would be " << nameOf(other.fate) << '\n';
}

ExitStatus explain(Program& program, const ExplainArguments& options)
{
    const Frame frame = frameOf(options.frame);
    Scene scene;
    lookAt(scene, program, options.place);
    const Walk walked = walk(scene.walked().table, frame);
    if (options.json)
        writeJson(program.out, frame, scene, walked, options.all);
    else
        writeText(program, frame, scene, walked, options.all);
    program.out.flush();
    if (scene.configuration)
        noteRefused(program.err, scene.configured);
    noteDifference(program.err, scene, frame, walked);
    if (options.place.path.empty() && !isElsewhere(program))
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
    command.option("--in", "PORT", "Port that the frame arrives on", options->frame.in).required();
    command.option("--out", "PORT", "Port that it leaves by; without it the frame is for the device itself",
                   options->frame.out);
    addFrameOptions(command, options->frame, {"the frame is untagged", "it is 0"});
    addScenePlace(command, options->place);
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
