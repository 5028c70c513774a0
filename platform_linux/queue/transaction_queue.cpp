#include "platform_linux/queue/transaction_queue.hpp"

#include "ebtables/allowed_forms.hpp"
#include "nftables/generation_watch.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/forms.hpp"
#include "platform_linux/queue/kernel_tables.hpp"
#include "platform_linux/queue/legacy_tables.hpp"
#include "platform_linux/queue/line_cache.hpp"
#include "platform_linux/queue/line_gate.hpp"
#include "platform_linux/queue/line_store.hpp"
#include "platform_linux/queue/record_file.hpp"
#include "platform_linux/queue/refusals.hpp"
#include "platform_linux/queue/repair_pace.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <set>
#include <span>
#include <unordered_set>
#include <utility>
#include <vector>

namespace zol::cfg
{

namespace
{

using ebtables::CommandKind;
using ebtables::Footprint;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* queueLabel = "queue";
constexpr milliseconds lastMoments{10'000}; // for each process that the destructor starts
constexpr unsigned lessOfChecks = 10;       // looking for changes of others takes a tenth of the time at most ...
constexpr milliseconds latestCheck{50};     // ... but is not put off longer than this
constexpr unsigned lessOfLooks = 200;       // looking for a right that is missing takes so little of the time ...
constexpr milliseconds shortestLook{4};     // ... with pauses between these
constexpr milliseconds longestLook{50};
constexpr std::size_t textsAlways = 256; // so many texts and lines are kept whether they are in use or not

ZOL_Sysloglevel_Module logModule()
{
    static const ZOL_Sysloglevel_Module module = ZOL_Sysloglevel_registerModul("moatkeeper");
    return module;
}

void info(int line, const std::string& text)
{
    ZOL_Sysloglevel_info(logModule(), queueLabel, line, text);
}
void warning(int line, const std::string& text)
{
    ZOL_Sysloglevel_warning(logModule(), queueLabel, line, text);
}
void error(int line, const std::string& text)
{
    ZOL_Sysloglevel_error(logModule(), queueLabel, line, text);
}

} // namespace

class TransactionQueue::State
{
public:
    explicit State(TransactionQueueOptions options)
        : m_options(std::move(options)),
          m_gate(m_options.anyForm),
          m_record(m_options.recordFolder),
          m_namespace(ebtables::networkNamespace()),
          m_tables(
              m_pool, [this] { writeRecord(m_tables.footprint()); },
              m_options.openSocket ? m_options.openSocket : nftables::openSocket)
    {
        detect();
        openRecord();
        if (!m_legacy && !m_options.openSocket)
            watch();
    }

    void add(const std::string& line)
    {
        if (line.find_first_not_of(' ') == std::string::npos)
            return;
        endHold();
        m_lines.add(line);
        if (const PlayedCommand* known = m_legacy ? nullptr : m_cache.find(line)) {
            m_queued.push_back({*known, m_lines.size() - 1});
            return;
        }
        for (const PlayedCommand& command : parse(line))
            m_queued.push_back({command, m_lines.size() - 1});
    }

    int closeGroup()
    {
        m_closed = m_queued.size();
        m_closedLines = m_lines.size();
        return std::exchange(m_groupRefused, false) ? -1 : 0;
    }

    void setCompiled(bool compiled) { m_formChanged = m_forms.choose(compiled) || m_formChanged; }

    void deliver()
    {
        const bool formChanged = std::exchange(m_formChanged, false) && m_everDone;
        if (m_closedLines == 0 && !formChanged)
            return;
        if (!m_nextTry || isTime())
            return carryOut();
        playClosed(); // what waits is what is wanted, not the way there
        tidy();
    }

    bool retry()
    {
        const bool tries = m_waiting && m_nextTry && isTime();
        if (tries)
            carryOut();
        const bool checks = m_nextCheck && Clock::now() >= *m_nextCheck;
        if (checks)
            check();
        return tries || checks;
    }

    Held hold(const std::vector<std::string>& lines)
    {
        if (!holdRecord())
            return Held::NotNeeded;
        std::vector<std::vector<ebtables::Command>> parsed;
        std::set<std::string> chains;
        for (const std::string& line : lines) {
            parsed.push_back(std::move(ebtables::parseLine(line).commands));
            for (const ebtables::Command& command : parsed.back()) {
                if (command.kind == CommandKind::NewChain)
                    chains.insert(command.chain);
            }
        }
        if (m_hasLeftover && !std::ranges::includes(chains, m_recorded.chains()))
            return Held::NotNeeded;
        m_holding = true;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            m_lines.add(lines[i]);
            if (m_legacy)
                m_legacy->add(std::move(parsed[i]), lines[i]);
            else
                for (const ebtables::Command& command : parsed[i])
                    m_queued.push_back({intern(command, m_pool), m_lines.size() - 1});
        }
        closeGroup();
        carryOut();
        return m_waiting ? Held::Waits : Held::InForce;
    }

    // What is held is an earlier process's from now on: the next transaction takes it out.
    void endHold()
    {
        if (!std::exchange(m_holding, false))
            return;
        if (m_legacy)
            m_legacy->startOver();
        else
            m_tables.startOver();
        m_hasLeftover = true;
        m_waiting = false;
        m_nextTry.reset();
    }

    void keep() { m_keep = true; }

    void look()
    {
        m_tables.forget();
        m_nextTry.reset();
        m_notBefore = {};
        if (m_waiting)
            carryOut();
        else
            check();
    }

    void finish(bool afterException)
    {
        if (m_keep || (m_holding && afterException))
            return;
        closeGroup();
        endHold();
        if (m_closedLines == 0 && !m_waiting && (!m_hasLeftover || afterException))
            return;
        m_options.limits.time = std::min(m_options.limits.time, lastMoments);
        m_nextTry.reset();
        carryOut();
        if (m_waiting)
            error(102, "moatkeeper's rules stay in the bridge tables; the next start takes them out");
    }

    std::optional<milliseconds> retryIn() const
    {
        Clock::time_point next = Clock::time_point::max();
        if (m_waiting && m_nextTry)
            next = *m_nextTry;
        if (m_nextCheck)
            next = std::min(next, *m_nextCheck);
        if (next == Clock::time_point::max())
            return std::nullopt;
        return std::max(std::chrono::ceil<milliseconds>(next - Clock::now()), milliseconds(0));
    }

    int watchedDescriptor() const { return m_tables.watchedDescriptor(); }

    void handleChange()
    {
        while (const std::optional<nftables::GenerationChange> change = m_tables.nextForeignChange()) {
            if (!change->lost)
                m_who = *change;
            scheduleCheck();
        }
        if (m_nextCheck && Clock::now() >= *m_nextCheck)
            check();
    }

    QueueStatus status(std::size_t mostLines) const
    {
        QueueStatus status{.inStep = m_everDone && !m_waiting,
                           .reason = m_waiting ? m_lastReason : "",
                           .rules = m_tables.countOurRules(),
                           .notInForce = {},
                           .lastRepair = m_lastRepair,
                           .form = m_form};
        m_refusals.forEachAddition([&](const std::string& line, const std::string& reason) {
            if (status.notInForceCount++ < mostLines)
                status.notInForce.push_back({line, reason});
        });
        return status;
    }

private:
    struct Queued {
        PlayedCommand command;
        std::size_t line; // in m_lines
    };

    void detect()
    {
        const ebtables::ToolVersion version = ebtables::detect(m_options.tools, m_options.limits);
        if (version.variant != ebtables::Variant::Legacy) {
            info(103, "each commit is one transaction of nf_tables");
            return;
        }
        warning(104, version.text + " knows no transactions: commits are not atomic, lines are run one at a time");
        m_legacy.emplace(m_options.tools, m_options.limits);
        m_forms.stayPlain("the legacy tool knows no maps");
    }

    void watch()
    {
        if (const int reason = m_tables.watch(); reason != 0)
            warning(118, std::string("changes by other programs will not be noticed: cannot watch nf_tables: ") +
                             std::strerror(reason));
    }

    void openRecord()
    {
        const std::string reason = m_record.prepare();
        if (!reason.empty()) {
            warning(105, reason + "; after a kill of this process its rules will have to be removed by hand");
            return;
        }
        m_recording = true;
        holdRecord();
    }

    // Whether no other process is at work. The record is read when it is ours: until then another one writes it.
    bool holdRecord()
    {
        if (!m_recording || m_held)
            return true;
        m_held = m_record.lock();
        if (m_held)
            readRecord();
        return m_held;
    }

    void readRecord()
    {
        std::string reason;
        if (const std::optional<std::string> content = m_record.read(reason)) {
            if (std::optional<Footprint> found = Footprint::fromText(*content, m_namespace, reason)) {
                m_recorded = *found;
                m_hasLeftover = !found->empty();
                if (m_hasLeftover)
                    info(106, "the process before left its rules in the bridge tables; they stay until the first "
                              "commit takes their place");
                if (m_legacy)
                    m_legacy->setLeftover(std::move(*found));
                else
                    m_tables.setLeftover(std::move(*found));
            }
        }
        if (!reason.empty())
            warning(107, "the record " + m_record.path() + " is ignored: " + reason);
    }

    // The line's commands, valid until the next call; none when it is refused, or for the legacy tool.
    std::span<const PlayedCommand> parse(const std::string& line)
    {
        m_parsed.clear();
        ebtables::ParsedLine parsed = m_gate.take(line);
        if (parsed.error) {
            m_refusals.noteLine(line);
            refuse(101, line, "refused \"" + text::oneLine(line) + "\": ", parsed.error->text());
            m_groupRefused = true;
            return m_parsed;
        }
        if (m_legacy) {
            if (!parsed.commands.empty())
                m_legacy->add(std::move(parsed.commands), line);
            return m_parsed;
        }
        for (const ebtables::Command& command : parsed.commands)
            m_parsed.push_back(intern(command, m_pool));
        // Whether a line about a filter's chain passes is another question each time.
        if (m_parsed.size() == 1 && (m_options.anyForm || !namesFilter(m_parsed.front())))
            m_cache.add(line, m_parsed.front());
        return m_parsed;
    }

    static bool namesFilter(const PlayedCommand& command)
    {
        return ebtables::isFilterChain(*command.chain) ||
               (command.jump != nullptr && ebtables::isFilterChain(*command.jump));
    }

    // Whether the command leaves alone the chains of filters that are not ours, now that it is known who has them.
    bool mayCarryOut(const PlayedCommand& command)
    {
        const auto isOurs = [&](const std::string& chain) {
            const ImageChain* found = m_tables.wanted().find(chain);
            return !ebtables::isFilterChain(chain) || found == nullptr || found->ours;
        };
        return m_options.anyForm || command.kind == CommandKind::NewChain ||
               (isOurs(*command.chain) && (command.jump == nullptr || isOurs(*command.jump)));
    }

    // Once, until the reason changes or the line is gone.
    void refuse(int number, const std::string& line, const std::string& text, const std::string& reason)
    {
        if (m_refusals.add(line, reason))
            error(number, text + reason);
    }

    // Plays what was queued on the tables as they are to be.
    void playClosed()
    {
        std::size_t line = m_lines.size();
        for (std::size_t i = 0; i < m_closed; ++i) {
            const Queued& queued = m_queued[i];
            if (line != queued.line) {
                line = queued.line;
                m_refusals.noteLine(m_lines[line]);
            }
            if (!mayCarryOut(queued.command))
                refuseCommand(queued, std::string(ebtables::notOurChain));
            else if (const auto reason = play(queued.command, m_tables.wanted()))
                refuseCommand(queued, *reason);
            else
                m_played.push_back(queued);
        }
        m_queued.erase(m_queued.begin(), m_queued.begin() + static_cast<std::ptrdiff_t>(m_closed));
        m_closed = 0;
        m_closedLines = 0;
        m_waiting = true;
    }

    void refuseCommand(const Queued& queued, const std::string& reason)
    {
        const std::string line(m_lines[queued.line]);
        refuse(110, line, "refused \"" + line + "\": ", reason);
    }

    // Whether the time for the next try has come. Where a right was missing, that is when it is back: one small message
    // tells, and so it can be asked for often.
    bool isTime()
    {
        const Clock::time_point start = Clock::now();
        if (start < *m_nextTry)
            return false;
        if (!m_looksForRight)
            return true;
        m_foundRight = m_tables.mayChange();
        const Clock::time_point end = Clock::now();
        m_nextTry = end + std::clamp<Clock::duration>(lessOfLooks * (end - start), shortestLook, longestLook);
        return m_foundRight;
    }

    void carryOut()
    {
        if (!holdRecord()) {
            if (!m_legacy)
                playClosed();
            return cannotRun("another moatkeeper process, or a child of a killed one, is still at work in " +
                             m_options.recordFolder);
        }
        if (m_legacy)
            return carryOutLegacy();
        std::string reason;
        const bool known = m_forms.know(reason);
        playClosed();
        if (!known)
            return cannotRun(reason, m_tables.isForbidden());
        const KernelTables::Outcome outcome = m_forms.bring();
        for (const Dropped& dropped : outcome.dropped)
            tellDropped(dropped);
        tellDrift();
        if (outcome.changed || (outcome.done && !m_played.empty()))
            noteCommit();
        if (!outcome.done)
            return cannotRun(outcome.reason, m_tables.isForbidden());
        m_hasLeftover = false;
        done();
        tellForm();
        const Footprint footprint = m_tables.footprint();
        if (m_queued.empty())
            m_gate.settle(ebtables::OwnChains(footprint.chains()));
        writeRecord(footprint);
        tidy();
        if (!m_tables.isKnown()) {
            m_who = {};
            scheduleCheck();
        }
    }

    void carryOutLegacy()
    {
        m_waiting = true;
        m_closed = 0;
        m_closedLines = 0;
        m_lines.clear();
        writeRecord(m_legacy->footprint());
        const LegacyTables::Outcome outcome = m_legacy->carryOut(m_record.lockDescriptor());
        for (const LegacyTables::Refused& refused : outcome.refused)
            error(110, "the tool refused \"" + refused.line + "\": " + refused.reason);
        if (outcome.changed)
            noteCommit();
        if (!outcome.done)
            return cannotRun(outcome.reason);
        m_hasLeftover = false;
        done();
        tellForm();
        const Footprint footprint = m_legacy->footprint();
        m_gate.settle(ebtables::OwnChains(footprint.chains()));
        writeRecord(footprint);
    }

    void done()
    {
        m_waiting = false;
        m_nextTry.reset();
        m_pause = milliseconds(0);
        m_looksForRight = false;
        m_foundRight = false;
        for (const std::string& line : m_refusals.takeGone())
            info(115, "not refused any more, or gone: \"" + text::oneLine(line) + '"');
        if (!std::exchange(m_lastReason, "").empty())
            info(108, "the bridge tables can be changed again; everything that waited is carried out");
    }

    void tellDropped(const Dropped& dropped)
    {
        const std::string whole = "ebtables " + dropped.what;
        const auto from = std::ranges::find_if(m_played, [&](const Queued& queued) {
            return dropped.rule != nullptr && queued.command.rule == dropped.rule &&
                   *queued.command.chain == dropped.chain;
        });
        const std::string line(from != m_played.end() ? m_lines[from->line] : whole);
        const std::string part = line.find(';') == std::string::npos ? "" : ", of it \"" + whole + '"';
        refuse(110, line, "the kernel refused \"" + line + '"' + part + ": ", dropped.reason);
    }

    void tellDrift()
    {
        const std::vector<std::string> drift = m_tables.takeDrift();
        if (drift.empty())
            return;
        const RepairPace::Verdict verdict = m_pace.repaired(Clock::now());
        m_notBefore = Clock::now() + verdict.pause;
        std::string text;
        for (const std::string& part : drift)
            text += (text.empty() ? "" : ", ") + part;
        if (text.size() > 600)
            text = text.substr(0, 600) + "...";
        const std::string who = m_who.program.empty()
                                    ? "another program"
                                    : text::oneLine(m_who.program) + " (process " + std::to_string(m_who.process) + ')';
        m_lastRepair = {.when = std::chrono::system_clock::now(), .what = who + ": " + text};
        if (!verdict.tell)
            return;
        warning(116, who + " changed moatkeeper's part of the bridge tables, which is put back: " + text);
        if (verdict.tellStorm)
            warning(117, "other programs keep changing it; it is put back each time, with growing pauses, and told "
                         "now and then only");
    }

    void tellForm()
    {
        const std::string form = m_forms.inWords();
        if (form == m_form)
            return;
        m_form = form;
        const std::string text = "the form of the rules in the kernel is " + m_form;
        if (m_form.find(':') != std::string::npos)
            warning(119, text);
        else
            info(120, text);
    }

    void scheduleCheck()
    {
        if (!m_nextCheck)
            m_nextCheck = std::max(m_notBefore, Clock::now());
    }

    // Others have changed some tables: is it ours?
    void check()
    {
        m_nextCheck.reset();
        if (m_waiting || m_legacy || !(m_everDone || m_holding) || !m_queued.empty())
            return;
        const Clock::time_point start = Clock::now();
        carryOut();
        const Clock::time_point end = Clock::now();
        m_notBefore = std::max(m_notBefore, end + std::min<Clock::duration>(lessOfChecks * (end - start), latestCheck));
    }

    void cannotRun(const std::string& reason, bool isForbidden = false)
    {
        m_waiting = true;
        // Who has just been told that it has the right does not ask for it again at once.
        m_looksForRight = !std::exchange(m_foundRight, false) && isForbidden;
        if (!m_looksForRight)
            m_pause = m_pause.count() == 0 ? m_options.firstPause : std::min(2 * m_pause, m_options.longestPause);
        m_nextTry = Clock::now() + (m_looksForRight ? shortestLook : m_pause);
        tidy();
        if (m_lastReason != reason)
            error(111, "the bridge tables cannot be changed: " + reason + ". Nothing is lost; it is tried again");
        m_lastReason = reason;
    }

    void noteCommit()
    {
        if (m_holding)
            return; // no commit of anybody's
        m_everDone = true;
        const std::string reason = m_record.noteCommit();
        if (!reason.empty() && !std::exchange(m_toldNoTime, true))
            warning(113, reason + "; the time of the last commit will not be known");
    }

    void writeRecord(const Footprint& footprint)
    {
        if (!m_recording || footprint == m_recorded)
            return;
        const std::string reason =
            footprint.empty() ? m_record.remove() : m_record.write(footprint.toText(m_namespace));
        if (reason.empty())
            m_recorded = footprint;
        if (std::exchange(m_recordProblem, reason) != reason && !reason.empty())
            warning(112, reason + "; after a kill of this process its rules will have to be removed by hand");
    }

    // Lines are kept for messages only: as long as a commit lasts, and those of a group that is still open.
    void forgetLines()
    {
        m_played.clear();
        if (!m_queued.empty())
            return;
        m_lines.clear();
        m_played.shrink_to_fit();
        m_queued.shrink_to_fit();
    }

    // What is not in use any more goes.
    void tidy()
    {
        forgetLines();
        std::size_t rules = 0;
        for (const auto& [name, chain] : m_tables.wanted().chains)
            rules += chain.rules.size();
        m_cache.tidy(2 * rules + textsAlways);
        if (m_pool.size() < 3 * rules + textsAlways)
            return;
        std::unordered_set<RulePool::Text> used;
        m_cache.forEach([&](const PlayedCommand& command) {
            used.insert({command.chain, command.rule, command.jump});
        });
        for (const Queued& queued : m_queued)
            used.insert({queued.command.chain, queued.command.rule, queued.command.jump});
        m_tables.collectTexts([&](RulePool::Text text) { used.insert(text); });
        m_pool.sweep([&](RulePool::Text text) { return used.contains(text); });
    }

    TransactionQueueOptions m_options;
    Gate m_gate;
    ebtables::RecordFile m_record;
    std::string m_namespace;
    bool m_recording = false;
    bool m_held = false; // the record's lock
    bool m_toldNoTime = false;
    bool m_hasLeftover = false;  // the process before left something that nobody took out yet
    bool m_holding = false;      // what is in force is to hold until the first delivery
    bool m_keep = false;         // it is the next process's
    Footprint m_recorded;        // what the record says
    std::string m_recordProblem; // why not what it should

    RulePool m_pool;
    LineCache m_cache;
    std::vector<PlayedCommand> m_parsed; // of the line parsed last
    KernelTables m_tables;
    Forms m_forms{m_tables};
    std::optional<LegacyTables> m_legacy;
    Refusals m_refusals;

    LineStore m_lines; // of the commit that is being queued or carried out
    std::vector<Queued> m_queued;
    std::vector<Queued> m_played;
    std::size_t m_closed = 0; // so many of those queued are in groups that process has closed
    std::size_t m_closedLines = 0;
    bool m_groupRefused = false;

    bool m_formChanged = false;   // and nothing was carried out since
    std::string m_form = "plain"; // that is in the kernel, and why not the other one

    bool m_waiting = false; // the tables are not as wanted
    bool m_everDone = false;
    std::string m_lastReason;
    milliseconds m_pause{0};
    std::optional<Clock::time_point> m_nextTry;
    bool m_looksForRight = false; // the next try comes when there is one to change the tables
    bool m_foundRight = false;    // which was said when it was last looked for

    nftables::GenerationChange m_who; // changed the tables last
    RepairPace m_pace;
    std::optional<Repair> m_lastRepair;
    std::optional<Clock::time_point> m_nextCheck;
    Clock::time_point m_notBefore{};
};

TransactionQueue::TransactionQueue(TransactionQueueOptions options)
    : m_state(std::make_unique<State>(std::move(options)))
{
}

TransactionQueue::~TransactionQueue()
{
    m_state->finish(std::uncaught_exceptions() > 0);
}

TransactionQueue::Held TransactionQueue::hold(const std::vector<std::string>& lines)
{
    return m_state->hold(lines);
}

void TransactionQueue::keep()
{
    m_state->keep();
}

void TransactionQueue::look()
{
    m_state->look();
}

void TransactionQueue::setCompiled(bool compiled)
{
    m_state->setCompiled(compiled);
}

void TransactionQueue::addCommand(const std::string& commandLine)
{
    m_state->add(commandLine);
}

int TransactionQueue::process()
{
    return m_state->closeGroup();
}

void TransactionQueue::endDelivery()
{
    m_state->deliver();
}

std::optional<std::chrono::milliseconds> TransactionQueue::retryIn() const
{
    return m_state->retryIn();
}

bool TransactionQueue::retry()
{
    return m_state->retry();
}

int TransactionQueue::watchedDescriptor() const
{
    return m_state->watchedDescriptor();
}

void TransactionQueue::handleChange()
{
    m_state->handleChange();
}

QueueStatus TransactionQueue::status(std::size_t mostLines) const
{
    return m_state->status(mostLines);
}

} // namespace zol::cfg
