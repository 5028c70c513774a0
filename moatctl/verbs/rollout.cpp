#include "moatctl/command_line/given.hpp"
#include "moatctl/command_line/numbers.hpp"
#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/time_stamp.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/verbs/all.hpp"
#include "moatctl/verbs/file_edit.hpp"
#include "moatctl/verbs/rollout_step.hpp"
#include "ovsdb/json.hpp"
#include "schema/trial.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

constexpr int longestSettle = 43'200;    // seconds
constexpr std::chrono::seconds spare{5}; // of a trial, beyond all that may take its time
constexpr std::chrono::milliseconds usualSettle{60'000};

constexpr const char* nothingChanged = "; nothing was changed";

struct RolloutArguments {
    std::string file;
    std::vector<std::string> steps;
    std::chrono::milliseconds settle = usualSettle;
    bool batch = false;
    bool replace = false;
    bool keep = false;
    bool dryRun = false;
    bool json = false;
};

volatile std::sig_atomic_t interrupted = 0;

extern "C" void interruptRollout(int)
{
    interrupted = 1;
}

void stopOnSignals()
{
    struct sigaction action {
    };
    action.sa_handler = interruptRollout;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(number, &action, nullptr);
}

void throwIfInterrupted()
{
    if (interrupted != 0)
        throw Failure(ExitStatus::NotApplied, "interrupted");
}

class Rollout
{
public:
    Rollout(Program& program, const RolloutArguments& options) : m_program(program), m_options(options)
    {
        m_edit = options.batch ? batchEdit(program, options.file) : importEdit(program, options.file, options.replace);
        program.whileWaiting = throwIfInterrupted;
        for (const std::string& text : options.steps)
            m_steps.emplace_back(text, program);
    }

    // Nothing is changed by it.
    void preview()
    {
        for (RolloutStep& step : m_steps) {
            std::vector<std::string> lines;
            try {
                lines = step.preview(m_edit);
            } catch (const Failure& failure) {
                flush(step);
                const std::string text = failure.what();
                const char* end = text.ends_with(nothingChanged) ? "" : nothingChanged;
                throw Failure(failure.status(), step.name() + ": " + text + end);
            } catch (const ovsdb::Error& error) {
                throw Failure(ExitStatus::Server, step.name() + ": " + error.what() + nothingChanged);
            }
            for (const std::string& line : lines)
                say(step, "planned", line);
            if (lines.empty())
                say(step, "planned", "nothing to change");
        }
    }

    ExitStatus carryOut()
    {
        identify(*m_program.occasion);
        stopOnSignals();
        for (RolloutStep& step : m_steps) {
            try {
                throwIfInterrupted();
                bring(step);
            } catch (const Failure& failure) {
                return stop(step, failure.what());
            } catch (const ovsdb::Error& error) {
                return stop(step, error.what());
            }
        }
        return ExitStatus::Ok;
    }

private:
    void bring(RolloutStep& step)
    {
        using std::chrono::ceil;
        using std::chrono::seconds;
        // Until it is in force, and seen to be; for daemons that are started anew; to find the server again; to
        // confirm.
        const auto trial = ceil<seconds>(5 * m_program.server.timeout + m_options.settle) + spare;
        if (!step.store(m_edit, *m_program.occasion, static_cast<std::int32_t>(trial.count()))) {
            say(step, "unchanged", "nothing to change");
            return;
        }
        say(step, "stored",
            "stored as change " + std::to_string(step.change()) + ", on trial for " + std::to_string(trial.count()) +
                " s");
        const Reached reached = step.await();
        step.messages(); // the next line says the same
        say(step, "in_force",
            "in force on " + std::to_string(reached.reached) + " of " + std::to_string(reached.devices) +
                (reached.devices == 1 ? " device" : " devices"));
        step.settle(m_options.settle);
        step.confirm();
        say(step, "confirmed", "in force for " + inWords(ceil<seconds>(m_options.settle)) + ": confirmed");
    }

    ExitStatus stop(RolloutStep& where, const std::string& why)
    {
        flush(where);
        say(where, "trouble", why);
        return m_options.keep ? keep(where) : goBack();
    }

    ExitStatus keep(RolloutStep& where)
    {
        if (where.isChanged()) {
            attempt(where, "kept", [&where] {
                where.confirm();
                return std::string("kept as it is");
            });
        }
        return ended();
    }

    ExitStatus goBack()
    {
        Occasion occasion = *m_program.occasion;
        occasion.verb = "going back: " + occasion.verb;
        for (auto step = m_steps.rbegin(); step != m_steps.rend(); ++step) {
            if (step->isChanged())
                attempt(*step, "went_back", [&step, &occasion] { return step->takeBack(occasion); });
        }
        return ended();
    }

    template <typename Work>
    void attempt(RolloutStep& step, const char* event, const Work& work)
    {
        std::string failed;
        try {
            const std::string done = work();
            flush(step);
            say(step, event, done);
            return;
        } catch (const Failure& failure) {
            failed = failure.what();
        } catch (const ovsdb::Error& error) {
            failed = error.what();
        }
        flush(step);
        say(step, "left", failed);
    }

    // By what is left.
    ExitStatus ended()
    {
        const auto left = std::ranges::count_if(m_steps, &RolloutStep::isChanged);
        m_program.out.flush();
        if (left == 0)
            throw Failure(ExitStatus::WentBack, "the rollout has stopped; nothing is left of it");
        throw Failure(ExitStatus::HalfWay, "the rollout has stopped; the change is left in " + std::to_string(left) +
                                               " of " + std::to_string(m_steps.size()) + " steps");
    }

    void flush(RolloutStep& step)
    {
        for (const std::string& line : step.messages())
            say(step, "message", line);
    }

    void say(const RolloutStep& step, const char* event, const std::string& text)
    {
        const std::string time = timeStamp(std::chrono::system_clock::now());
        const auto place = std::ranges::find(m_steps, &step, [](const RolloutStep& each) { return &each; });
        const auto position = static_cast<std::int64_t>(place - m_steps.begin()) + 1;
        if (m_options.json)
            m_program.out << ovsdb::toText(ovsdb::Json::Object{
                {"time", time}, {"step", position}, {"name", step.name()}, {"event", event}, {"text", text}});
        else
            m_program.out << time << " step " << position << " of " << m_steps.size() << ", "
                          << text::oneLine(step.name()) << ": " << text::oneLine(text, std::string::npos);
        m_program.out << '\n' << std::flush;
    }

    Program& m_program;
    const RolloutArguments& m_options;
    RolloutStep::Edit m_edit;
    std::deque<RolloutStep> m_steps; // which stay where they are
};

ExitStatus rollOut(Program& program, const RolloutArguments& options)
{
    if (program.noWait)
        throw Failure(ExitStatus::BadInput, "--no-wait: a rollout waits until each step is in force");
    Rollout work(program, options);
    work.preview();
    return options.dryRun ? ExitStatus::Ok : work.carryOut();
}

std::chrono::milliseconds settleOf(const std::string& text)
{
    if (text == "0")
        return std::chrono::milliseconds(0);
    try {
        return secondsOf("--settle", text, longestSettle);
    } catch (const Failure&) {
        throw Failure(ExitStatus::BadInput,
                      "--settle " + inQuotes(text) + ": expected seconds, from 0 to " + std::to_string(longestSettle));
    }
}

void requireDifferent(const std::vector<std::string>& steps)
{
    std::set<std::string> known;
    for (const std::string& step : steps) {
        if (!known.insert(step).second)
            throw Failure(ExitStatus::BadInput, "--step " + inQuotes(step) + ": expected each step once");
    }
}

} // namespace

void addRollout(const Command& root, Program& program)
{
    auto options = std::make_shared<RolloutArguments>();
    const Command command =
        root.add("rollout", "Bring a change to one group of devices after the other; stop and go back on trouble",
                 "rollout site.json --step moatkeeper_pilot --step moatkeeper_all --settle 60 --wait 95%");
    command.option("FILE", "", "File as export writes it, or lines of a batch; - for standard input", options->file)
        .required();
    command.flag("--batch", "FILE has lines as batch takes them", options->batch);
    command.flag("--replace", "Remove rows that are not in the file", options->replace);
    command
        .option("--step", "DATABASE[@SERVER]",
                "The database of a group of devices, on the server of --server or on this one; again for each step, in "
                "their order")
        .required()
        .repeated();
    command
        .option("--settle", "SECONDS", "How long the change must stay in force before the next step",
                [options](const std::string& text) { options->settle = settleOf(text); })
        .defaultsTo("60");
    const Option keep = command.flag("--keep", "On trouble, leave everything as it is", options->keep);
    command.flag("--dry-run", "Only show what would change in each step", options->dryRun).excludes(keep);
    command
        .option("--format", "text|json", "Form of what is told: lines for people, or a JSON object on a line",
                [options](const std::string& format) { options->json = format == "json"; })
        .oneOf({"text", "json"})
        .defaultsTo("text");
    command.flag("--force", "Store the change even if check would find errors then", program.force);
    command.onGiven([command, &program, options] {
        options->steps = Given(command).values("--step");
        requireDifferent(options->steps);
        if (options->batch && options->replace)
            throw Failure(ExitStatus::BadInput, "--replace: expected a file as export writes it, found --batch");
        program.action = [&program, options] { return rollOut(program, *options); };
    });
}

} // namespace moatctl
