#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/tables/file.hpp"
#include "moatctl/tables/read_text.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/verbs/all.hpp"
#include "ovsdb/json.hpp"

#include <memory>
#include <ostream>
#include <set>
#include <utility>

namespace moatctl
{

namespace
{

struct Options {
    FrameOptions frame;
    std::string path;
    bool json = false;
};

// The rule, or the policy at the end of the chain, as the tool writes it.
std::string textOf(const Step& step)
{
    return step.rule != nullptr ? ebtables::toText(*step.rule->rule) : "policy " + step.chain->policy;
}

std::string nameOfOrigin(const Row* row)
{
    return row != nullptr ? moatctl::nameOf(*row) : "the daemon's own";
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

const char* nameOf(Fate fate)
{
    return fate == Fate::Accept ? "ACCEPT" : fate == Fate::Drop ? "DROP" : "UNKNOWN";
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

void writeJson(std::ostream& out, const Frame& frame, const Applied& applied, const Walk& walked)
{
    ovsdb::Json::Array steps;
    for (const Step& step : walked.steps) {
        ovsdb::Json place = placeOf(applied, step);
        ovsdb::Json::Object object = *place.asObject();
        object.emplace_back("matches", answerOf(step));
        steps.emplace_back(std::move(object));
    }
    out << ovsdb::toText(ovsdb::Json::Object{{"frame", toText(frame)},
                                             {"fate", nameOf(walked.fate)},
                                             {"decided_by", placeOf(applied, walked.steps.back())},
                                             {"steps", std::move(steps)}})
        << '\n';
}

void writeText(Program& program, const Frame& frame, const Applied& applied, const Walk& walked)
{
    program.out << "frame " << toText(frame) << '\n';
    Sheet sheet{"steps", "Steps", {"CHAIN", "RULE", "MATCHES", "ROW", "TEXT"}, {}};
    using tessera::Value;
    for (const Step& step : walked.steps) {
        const std::string number = step.rule != nullptr ? std::to_string(step.position + 1) : "-";
        sheet.rows.push_back({Value(std::string(2 * std::size_t{step.depth}, ' ') + step.chain->name), Value(number),
                              Value(answerOf(step)), Value(nameOfOrigin(applied.rowOf(step.origin()))),
                              Value(textOf(step))});
    }
    writeSheets(program.out, {sheet}, {}, program.colour);

    const Step& last = walked.steps.back();
    const std::string by = nameOfOrigin(applied.rowOf(last.origin()));
    program.out << nameOf(walked.fate) << ": ";
    if (walked.fate == Fate::Unknown)
        program.out << "it depends on " << last.result.missing << ", which " << by << " looks at\n";
    else if (last.rule != nullptr)
        program.out << by << " (rule " << last.position + 1 << " of " << last.chain->name << ")\n";
    else
        program.out << "no rule decides; the policy of " << last.chain->name << ", " << by << '\n';
}

// What the bridge itself does with some addresses, whatever the chains say.
void writeNotes(std::ostream& err, const Frame& frame)
{
    constexpr MacAddress linkLocal{0x01, 0x80, 0xc2, 0, 0, 0};
    MacAddress group = frame.destination;
    group[5] &= 0xf0;
    if (group == linkLocal && frame.destination[5] == 0x01)
        err << "note: the bridge drops frames to 01:80:c2:00:00:01 before any chain\n";
    else if (group == linkLocal && !frame.out.empty())
        err << "note: the bridge does not forward frames to this address unless its group_fwd_mask says so or, for "
               "01:80:c2:00:00:00, its spanning tree protocol is off\n";
    if (frame.in == frame.out)
        err << "note: the bridge does not send a frame back to the port that it came from, except in hairpin mode\n";
}

ExitStatus explain(Program& program, const Options& options)
{
    const Frame frame = frameOf(options.frame);
    Configuration configuration;
    if (options.path.empty()) {
        ovsdb::Client client = program.connect();
        configuration = loadFromServer(client);
    } else {
        LoadedFile loaded = parseConfiguration(readText(program.in, options.path), moatctl::nameOf(options.path));
        if (writeProblems(program.err, loaded.problems) != 0)
            throw Failure(ExitStatus::BadInput, "the configuration has errors; nothing is explained");
        configuration = std::move(loaded.configuration);
    }
    const Applied applied = apply(expectedOf(configuration));
    std::set<const Row*> noted;
    for (const RefusedLine& refused : applied.refused) {
        if (noted.insert(refused.origin).second)
            program.err << "note: "
                        << (refused.origin != nullptr ? nameOfOrigin(refused.origin) : "the missing row of MoatKeeper")
                        << ": a line is left out because the tool would refuse it (see moatctl check)\n";
    }

    const Walk walked = walk(applied.table, frame);
    if (options.json)
        writeJson(program.out, frame, applied, walked);
    else
        writeText(program, frame, applied, walked);
    writeNotes(program.err, frame);
    return walked.fate == Fate::Unknown ? ExitStatus::BadInput : ExitStatus::Ok;
}

} // namespace

void addExplain(const Command& root, Program& program)
{
    auto options = std::make_shared<Options>();
    const Command command = root.add("explain", "Show what happens to a frame, and which row decides",
                                     "explain --in eth0 --out eth1 --src-mac 00:11:22:33:44:55 "
                                     "--dst-mac 00:11:22:33:44:66 --src 10.0.0.1 --dst 10.0.0.2 --proto tcp --port 80");
    addFrameOptions(command, options->frame);
    command.option("--file", "FILE",
                   "Configuration file to use instead of the server's configuration; - for standard input",
                   options->path);
    command
        .option("--format", "table|json", "Form of the output",
                [options](const std::string& format) { options->json = format == "json"; })
        .oneOf({"table", "json"})
        .defaultsTo("table");
    command.onGiven(
        [&program, options] { program.action = [&program, options] { return explain(program, *options); }; });
}

} // namespace moatctl
