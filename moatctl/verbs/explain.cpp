#include "moatctl/bridge/expected.hpp"
#include "moatctl/command_line/errors.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "moatctl/command_line/output.hpp"
#include "moatctl/tables/load.hpp"
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

const Row* originOf(const Step& step)
{
    return step.rule != nullptr ? step.rule->origin : step.chain->policyOrigin;
}

// The rule, or the policy at the end of the chain, as the tool writes it.
std::string textOf(const Step& step)
{
    return step.rule != nullptr ? ebtables::toText(step.rule->rule) : "policy " + step.chain->policy;
}

std::string nameOfOrigin(const Row* row)
{
    if (row == nullptr)
        return "the daemon's own";
    std::string name(row->table->name);
    return row->table->hasIds() ? name + " Id " + std::to_string(row->id()) : name;
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

ovsdb::Json placeOf(const Step& step)
{
    const Row* origin = originOf(step);
    ovsdb::Json::Object object{
        {"chain", step.chain->name},
        {"rule", step.rule != nullptr ? ovsdb::Json(static_cast<std::int64_t>(step.position) + 1) : ovsdb::Json()},
        {"table", origin != nullptr ? ovsdb::Json(origin->table->name) : ovsdb::Json()},
        {"id", origin != nullptr && origin->table->hasIds() ? ovsdb::Json(std::int64_t{origin->id()}) : ovsdb::Json()},
        {"text", textOf(step)},
    };
    return object;
}

void writeJson(std::ostream& out, const Frame& frame, const Walk& walked)
{
    ovsdb::Json::Array steps;
    for (const Step& step : walked.steps) {
        ovsdb::Json place = placeOf(step);
        ovsdb::Json::Object object = *place.asObject();
        object.emplace_back("matches", answerOf(step));
        steps.emplace_back(std::move(object));
    }
    out << ovsdb::toText(ovsdb::Json::Object{{"frame", toText(frame)},
                                             {"fate", nameOf(walked.fate)},
                                             {"decided_by", placeOf(walked.steps.back())},
                                             {"steps", std::move(steps)}})
        << '\n';
}

void writeText(Program& program, const Frame& frame, const Walk& walked)
{
    program.out << "frame " << toText(frame) << '\n';
    Sheet sheet{"steps", "Steps", {"CHAIN", "RULE", "MATCHES", "ROW", "TEXT"}, {}};
    using tessera::Value;
    for (const Step& step : walked.steps) {
        const std::string number = step.rule != nullptr ? std::to_string(step.position + 1) : "-";
        sheet.rows.push_back({Value(std::string(2 * std::size_t{step.depth}, ' ') + step.chain->name), Value(number),
                              Value(answerOf(step)), Value(nameOfOrigin(originOf(step))), Value(textOf(step))});
    }
    writeSheets(program.out, {sheet}, {}, program.colour);

    const Step& last = walked.steps.back();
    program.out << nameOf(walked.fate) << ": ";
    if (walked.fate == Fate::Unknown)
        program.out << "it depends on " << last.result.missing << ", which " << nameOfOrigin(originOf(last))
                    << " looks at\n";
    else if (last.rule != nullptr)
        program.out << nameOfOrigin(originOf(last)) << " (rule " << last.position + 1 << " of " << last.chain->name
                    << ")\n";
    else
        program.out << "no rule decides; the policy of " << last.chain->name << ", " << nameOfOrigin(originOf(last))
                    << '\n';
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
        err << "note: the bridge sends no frame back out of the port that it came in by, unless in hairpin mode\n";
}

ExitStatus explain(Program& program, const Options& options)
{
    const Frame frame = frameOf(options.frame);
    Configuration configuration;
    if (options.path.empty()) {
        ovsdb::Client client = program.connect();
        configuration = loadFromServer(client);
    } else {
        LoadedFile loaded = parseConfiguration(readText(program, options.path), moatctl::nameOf(options.path));
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

    const Walk walked = walk(applied.model, frame);
    if (options.json)
        writeJson(program.out, frame, walked);
    else
        writeText(program, frame, walked);
    writeNotes(program.err, frame);
    return walked.fate == Fate::Unknown ? ExitStatus::BadInput : ExitStatus::Ok;
}

} // namespace

void addExplain(CLI::App& root, Program& program)
{
    auto options = std::make_shared<Options>();
    CLI::App* app = addSubcommand(root, "explain", "Say what becomes of a frame, and which row decides it",
                                  "explain --in eth0 --out eth1 --src-mac 00:11:22:33:44:55 "
                                  "--dst-mac 00:11:22:33:44:66 --src 10.0.0.1 --dst 10.0.0.2 --proto tcp --port 80");
    addFrameOptions(*app, options->frame);
    app->add_option("--file", options->path, "A configuration file instead of the server's, - for standard input")
        ->type_name("FILE");
    app->add_option_function<std::string>(
           "--format", [options](const std::string& format) { options->json = format == "json"; }, "table or json")
        ->type_name("FORMAT")
        ->check(oneOf({"table", "json"}));
    app->callback([&program, options] { program.action = [&program, options] { return explain(program, *options); }; });
}

} // namespace moatctl
