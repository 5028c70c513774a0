#include "platform_linux/queue/transaction_queue.hpp"

#include "ebtables/line_parser.hpp"
#include "platform/sysloglevel.h"
#include "platform_linux/queue/command_batch.hpp"
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/gate.hpp"
#include "platform_linux/queue/record_file.hpp"
#include "platform_linux/queue/transaction.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <exception>
#include <span>
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

} // namespace

class TransactionQueue::State
{
public:
    explicit State(TransactionQueueOptions options)
        : m_options(std::move(options)),
          m_gate(m_options.anyForm),
          m_record(m_options.recordFolder),
          m_namespace(ebtables::networkNamespace())
    {
        detect();
        readRecord();
    }

    void add(const std::string& line)
    {
        ebtables::ParsedLine parsed = m_gate.take(line);
        if (parsed.error) {
            error(101, "refused \"" + text::oneLine(line) + "\": " + parsed.error->text());
            m_groupRefused = true;
            return;
        }
        if (parsed.commands.empty())
            return;
        m_queued.add(std::move(parsed.commands), line);
    }

    int closeGroup()
    {
        m_closed = m_queued.commands().size();
        return std::exchange(m_groupRefused, false) ? -1 : 0;
    }

    void deliver()
    {
        if (m_closed == 0 || (m_nextTry && Clock::now() < *m_nextTry))
            return;
        carryOut();
    }

    void finish(bool afterException)
    {
        closeGroup();
        if (m_closed == 0 && (m_leftover.empty() || afterException))
            return;
        m_options.limits.time = std::min(m_options.limits.time, lastMoments);
        carryOut();
        if (m_closed > 0)
            error(102, "moatkeeper's rules stay in the bridge tables; the next start takes them out");
    }

    std::optional<std::chrono::milliseconds> retryIn() const
    {
        if (!m_nextTry || m_closed == 0)
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
        std::span<const Command> commands = m_queued.commands().first(m_closed);
        const std::size_t ahead = before->size();
        if (ahead > 0) {
            before->insert(before->end(), commands.begin(), commands.end());
            commands = *before;
        }

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
        const ebtables::OwnChains own(m_footprint.chains());
        const ebtables::Outcome outcome = legacy ? ebtables::applyOneByOne(m_options.tools, commands, own, limits)
                                                 : ebtables::applyTransaction(m_options.tools, commands, own, limits);
        finishOutcome(outcome, commands, ahead);
    }

    void finishOutcome(const ebtables::Outcome& outcome, std::span<const Command> commands, std::size_t ahead)
    {
        if (!outcome.notAtomic.empty())
            warning(114, "this commit was not one transaction: " + outcome.notAtomic);
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
                dropClosed(outcome.done - ahead);
            if (outcome.done >= ahead)
                m_leftover = Footprint();
            return cannotRun(outcome.reason);
        }
        m_leftover = Footprint();
        dropClosed(m_closed);
        if (m_queued.commands().empty())
            m_gate.settle(ebtables::OwnChains(m_footprint.chains()));
        writeRecord(m_footprint);
        m_nextTry.reset();
        m_pause = std::chrono::milliseconds(0);
        if (!std::exchange(m_lastReason, "").empty())
            info(108, "the bridge tables can be changed again; everything that waited is carried out");
    }

    void dropClosed(std::size_t count)
    {
        m_queued.dropFirst(count);
        m_closed -= count;
    }

    void logRefused(const Command& command, std::size_t index, std::size_t ahead, const std::string& reason) const
    {
        if (index < ahead) {
            warning(109, "cannot take out what a killed process left, \"" + toText(command) + "\": " + reason);
            return;
        }
        const std::string line(m_queued.line(index - ahead));
        const std::string whole = "ebtables " + toText(command);
        error(110, "the tool refused \"" + line + '"' +
                       (line.find(';') == std::string::npos ? "" : ", of it \"" + whole + '"') + ": " + reason);
    }

    void cannotRun(const std::string& reason)
    {
        const auto longest = m_options.longestPause;
        m_pause = m_pause.count() == 0 ? m_options.firstPause : std::min(2 * m_pause, longest);
        m_nextTry = Clock::now() + m_pause;
        m_closed = m_queued.compact(m_closed);
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
    Gate m_gate;
    ebtables::Variant m_variant = ebtables::Variant::Unknown;
    ebtables::RecordFile m_record;
    std::string m_namespace;
    bool m_recording = false;
    bool m_toldNoTime = false;
    Footprint m_leftover;  // what a killed process left and nobody took out yet
    Footprint m_footprint; // what is in the tables of ours
    Footprint m_recorded;  // what the record says
    CommandBatch m_queued;
    std::size_t m_closed = 0; // so many of the commands queued are in groups that process has closed
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
    m_state->finish(std::uncaught_exceptions() > 0);
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

void TransactionQueue::retry()
{
    m_state->deliver();
}

} // namespace zol::cfg
