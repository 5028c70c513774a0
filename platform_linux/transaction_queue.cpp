#include "platform_linux/transaction_queue.hpp"

#include "platform/sysloglevel.h"
#include "platform_linux/ebtables/footprint.hpp"
#include "platform_linux/ebtables/line_parser.hpp"
#include "platform_linux/ebtables/record_file.hpp"
#include "platform_linux/ebtables/transaction.hpp"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace zol::cfg
{

namespace
{

using ebtables::Command;
using ebtables::CommandKind;
using ebtables::Footprint;
using Clock = std::chrono::steady_clock;

constexpr const char* label = "queue";
constexpr std::chrono::milliseconds lastMoments{10'000}; // for all that the destructor starts

ZOL_Sysloglevel_Module logModule()
{
    static const ZOL_Sysloglevel_Module module = ZOL_Sysloglevel_registerModul("moatkeeper");
    return module;
}

void info(int line, const std::string& text)
{
    ZOL_Sysloglevel_info(logModule(), label, line, text);
}
void warning(int line, const std::string& text)
{
    ZOL_Sysloglevel_warning(logModule(), label, line, text);
}
void error(int line, const std::string& text)
{
    ZOL_Sysloglevel_error(logModule(), label, line, text);
}

// Commands and, for log lines, the text of the line that each came from.
struct Batch {
    std::vector<Command> commands;
    std::vector<std::size_t> lineOf; // a command's index in lines
    std::vector<std::string> lines;

    void clear() { *this = Batch(); }

    void append(Batch&& other)
    {
        if (commands.empty()) {
            *this = std::exchange(other, Batch());
            return;
        }
        const std::size_t offset = lines.size();
        std::ranges::move(other.commands, std::back_inserter(commands));
        std::ranges::move(other.lines, std::back_inserter(lines));
        for (const std::size_t line : other.lineOf)
            lineOf.push_back(line + offset);
        other.clear();
    }

    void dropFirst(std::size_t count)
    {
        commands.erase(commands.begin(), commands.begin() + static_cast<std::ptrdiff_t>(count));
        lineOf.erase(lineOf.begin(), lineOf.begin() + static_cast<std::ptrdiff_t>(count));
    }

    // Leaves out what a later flush of the same chain undoes anyway, so that what waits while the tool cannot run does
    // not grow without end. Jumps stay: whether a chain can be deleted may depend on them.
    void compact()
    {
        std::set<std::string> flushedLater;
        std::vector<bool> keep(commands.size(), true);
        for (std::size_t i = commands.size(); i-- > 0;) {
            const Command& command = commands[i];
            switch (command.kind) {
            case CommandKind::Flush:
                keep[i] = flushedLater.insert(command.chain).second;
                break;
            case CommandKind::DeleteChain:
                flushedLater.insert(command.chain);
                break;
            case CommandKind::NewChain:
                flushedLater.erase(command.chain);
                break;
            case CommandKind::Policy:
                break;
            default:
                keep[i] = !flushedLater.contains(command.chain) || !ebtables::isStandardTarget(command.rule.target);
            }
        }
        Batch kept;
        for (std::size_t i = 0; i < commands.size(); ++i) {
            if (!keep[i])
                continue;
            if (kept.lineOf.empty() || i == 0 || lineOf[i] != lineOf[i - 1] || !keep[i - 1])
                kept.lines.push_back(lines[lineOf[i]]);
            kept.lineOf.push_back(kept.lines.size() - 1);
            kept.commands.push_back(std::move(commands[i]));
        }
        *this = std::move(kept);
    }
};

} // namespace

class TransactionQueue::State
{
public:
    explicit State(TransactionQueueOptions options)
        : m_options(std::move(options)), m_record(m_options.recordFolder), m_namespace(ebtables::networkNamespace())
    {
        detect();
        readRecord();
    }

    void add(const std::string& line)
    {
        ebtables::ParsedLine parsed = ebtables::parseLine(line);
        if (parsed.error) {
            error(101, "refused \"" + ebtables::printable(line) + "\": " + parsed.error->text());
            m_groupRefused = true;
            return;
        }
        if (parsed.commands.empty())
            return;
        for (Command& command : parsed.commands) {
            m_open.commands.push_back(std::move(command));
            m_open.lineOf.push_back(m_open.lines.size());
        }
        m_open.lines.push_back(line);
    }

    int closeGroup()
    {
        m_waiting.append(std::move(m_open));
        return std::exchange(m_groupRefused, false) ? -1 : 0;
    }

    void deliver()
    {
        if (m_waiting.commands.empty() || (m_nextTry && Clock::now() < *m_nextTry))
            return;
        carryOut();
    }

    void finish()
    {
        closeGroup();
        if (m_waiting.commands.empty() && m_leftover.empty())
            return;
        m_options.limits.time = std::min(m_options.limits.time, lastMoments);
        carryOut();
        if (!m_waiting.commands.empty())
            error(102, "moatkeeper's rules stay in the bridge tables; the next start takes them out");
    }

    std::optional<std::chrono::milliseconds> retryIn() const
    {
        if (!m_nextTry || m_waiting.commands.empty())
            return std::nullopt;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_nextTry - Clock::now());
        return std::max(left, std::chrono::milliseconds(0));
    }

private:
    void detect()
    {
        const ebtables::ToolVersion version = ebtables::detect(m_options.tools, m_options.limits);
        if (version.variant == m_variant)
            return;
        m_variant = version.variant;
        if (m_variant == ebtables::Variant::NfTables)
            info(103, version.text + ": each commit is one transaction");
        else if (m_variant == ebtables::Variant::Legacy)
            warning(104, version.text + " knows no transactions: commits are not atomic, lines are run one at a time");
    }

    void readRecord()
    {
        std::string reason = m_record.prepare();
        if (!reason.empty()) {
            warning(105, reason + "; after a kill of this process its rules will have to be removed by hand");
            return;
        }
        m_recording = true;
        m_record.lock();
        const std::optional<std::string> content = m_record.read(reason);
        if (content) {
            if (std::optional<Footprint> found = Footprint::fromText(*content, m_namespace, reason)) {
                m_leftover = std::move(*found);
                m_footprint = m_leftover;
                m_recorded = m_leftover;
                if (!m_leftover.empty())
                    info(106,
                         "a process that was killed left rules in the bridge tables; the first commit takes them out");
            }
        }
        if (!reason.empty())
            warning(107, "the record " + m_record.path() + " is ignored: " + reason);
    }

    // The lines that take out what a killed process left. Nothing when the tables cannot be read.
    std::optional<std::vector<Command>> undoLeftover(std::string& reason)
    {
        if (m_leftover.empty())
            return std::vector<Command>();
        const std::optional<ebtables::Table> table = ebtables::readTable(m_options.tools, &reason, m_options.limits);
        return table ? std::optional(m_leftover.undo(*table)) : std::nullopt;
    }

    void carryOut()
    {
        if (m_recording && !m_record.lock())
            return cannotRun("another moatkeeper process, or a child of a killed one, is still at work in " +
                             m_options.recordFolder);
        if (m_variant == ebtables::Variant::Unknown)
            detect();
        std::string reason;
        std::optional<std::vector<Command>> before = undoLeftover(reason);
        if (!before)
            return cannotRun(reason);
        if (!before->empty()) {
            m_batch = std::move(*before);
            m_batch.insert(m_batch.end(), m_waiting.commands.begin(), m_waiting.commands.end());
        }
        const std::size_t ahead = m_batch.size() - (m_batch.empty() ? 0 : m_waiting.commands.size());
        const std::vector<Command>& commands = ahead > 0 ? m_batch : m_waiting.commands;

        Footprint united = m_footprint;
        {
            Footprint after = m_footprint;
            for (const Command& command : commands) {
                after.note(command);
                if (command.kind == CommandKind::DeleteChain || command.kind == CommandKind::Delete)
                    continue;
                united.note(command);
            }
            united.unite(after);
            united.unite(m_footprint);
        }
        writeRecord(united);

        ebtables::RunLimits limits = m_options.limits;
        limits.keepOpen = m_record.lockDescriptor();
        const bool legacy = m_variant == ebtables::Variant::Legacy;
        const ebtables::Outcome outcome = legacy ? ebtables::applyOneByOne(m_options.tools, commands, limits)
                                                 : ebtables::applyTransaction(m_options.tools, commands, limits);
        finishOutcome(outcome, commands, ahead);
        m_batch = {};
    }

    void finishOutcome(const ebtables::Outcome& outcome, const std::vector<Command>& commands, std::size_t ahead)
    {
        if (!outcome.notAtomic.empty())
            warning(113, "this commit was not one transaction: " + outcome.notAtomic);
        auto refused = outcome.refused.begin();
        for (std::size_t i = 0; i < outcome.done; ++i) {
            if (refused != outcome.refused.end() && refused->index == i) {
                logRefused(commands[i], i, ahead, refused->reason);
                ++refused;
            } else {
                m_footprint.note(commands[i]);
            }
        }
        if (outcome.done > outcome.refused.size())
            noteCommit();
        if (outcome.cannotRun) {
            if (outcome.done > ahead)
                m_waiting.dropFirst(outcome.done - ahead);
            if (outcome.done >= ahead)
                m_leftover = Footprint();
            return cannotRun(outcome.reason);
        }
        m_leftover = Footprint();
        m_waiting.clear();
        writeRecord(m_footprint);
        m_nextTry.reset();
        m_pause = std::chrono::milliseconds(0);
        if (!std::exchange(m_lastReason, "").empty())
            info(108, "the bridge tables can be changed again; everything that waited is carried out");
    }

    void logRefused(const Command& command, std::size_t index, std::size_t ahead, const std::string& reason) const
    {
        if (index < ahead) {
            warning(109, "cannot take out what a killed process left, \"" + toText(command) + "\": " + reason);
            return;
        }
        const std::string& line = m_waiting.lines[m_waiting.lineOf[index - ahead]];
        const std::string whole = "ebtables " + toText(command);
        error(110, "the tool refused \"" + line + '"' +
                       (line.find(';') == std::string::npos ? "" : ", of it \"" + whole + '"') + ": " + reason);
    }

    void cannotRun(const std::string& reason)
    {
        const auto longest = m_options.longestPause;
        m_pause = m_pause.count() == 0 ? m_options.firstPause : std::min(2 * m_pause, longest);
        m_nextTry = Clock::now() + m_pause;
        m_waiting.compact();
        if (m_lastReason != reason)
            error(111, "the bridge tables cannot be changed: " + reason + ". Nothing is lost; it is tried again");
        m_lastReason = reason;
    }

    void noteCommit()
    {
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
        else
            warning(112, reason + "; after a kill of this process its rules will have to be removed by hand");
    }

    TransactionQueueOptions m_options;
    ebtables::Variant m_variant = ebtables::Variant::Unknown;
    ebtables::RecordFile m_record;
    std::string m_namespace;
    bool m_recording = false;
    bool m_toldNoTime = false;
    Footprint m_leftover;  // what a killed process left and nobody took out yet
    Footprint m_footprint; // what is in the tables of ours
    Footprint m_recorded;  // what the record says
    Batch m_open;          // the group that process has not closed
    Batch m_waiting;       // closed groups
    std::vector<Command> m_batch;
    bool m_groupRefused = false;
    std::string m_lastReason;
    std::chrono::milliseconds m_pause{0};
    std::optional<Clock::time_point> m_nextTry;
};

TransactionQueue::TransactionQueue(TransactionQueueOptions options)
    : m_state(std::make_unique<State>(std::move(options)))
{
}

TransactionQueue::~TransactionQueue()
{
    m_state->finish();
}

void TransactionQueue::addCommand(const std::string& commandLine)
{
    m_state->add(commandLine);
}

int TransactionQueue::process()
{
    return m_state->closeGroup();
}

void TransactionQueue::beginDelivery() {}

void TransactionQueue::endDelivery()
{
    m_state->deliver();
}

std::optional<std::chrono::milliseconds> TransactionQueue::retryIn() const
{
    return m_state->retryIn();
}

void TransactionQueue::retry()
{
    m_state->deliver();
}

} // namespace zol::cfg
