#include "platform_linux/queue/transaction.hpp"

#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"
#include "platform_linux/queue/messages.hpp"
#include "platform_linux/queue/restore_block.hpp"
#include "platform_linux/queue/trial.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace ebtables
{

namespace
{

constexpr unsigned maxTries = 200; // then the commands are carried out one by one

std::string cannotRunReason(const ToolPaths& paths, const RunResult& result)
{
    if (result.end != RunResult::End::Exited)
        return result.reason;
    const Messages messages = parseMessages(result.exitCode, result.errors);
    std::string hint = "; is the kernel built with nf_tables for bridges?";
    if (messages.text.find("ermission") != std::string::npos ||
        messages.text.find("must be root") != std::string::npos ||
        messages.text.find("not permitted") != std::string::npos)
        hint = "; run as root or with CAP_NET_ADMIN";
    else if (messages.shortage)
        hint = "; is there memory enough?";
    return paths.restore + " ended with status " + std::to_string(result.exitCode) + ": " +
           (messages.text.empty() ? "no message" : messages.text) + hint;
}

// One call of applyTransaction.
class Transaction
{
public:
    Transaction(const ToolPaths& paths, std::span<const Command> commands, const OwnChains& own,
                const RunLimits& limits)
        : m_paths(paths), m_commands(commands), m_own(own), m_limits(limits), m_dropped(commands.size(), false)
    {
    }

    Outcome apply()
    {
        for (unsigned tries = 0; tries < maxTries; ++tries) {
            dropOnChainsOfOthers();
            RestoreBlock block;
            for (std::size_t i = 0; i < m_commands.size(); ++i) {
                if (!m_dropped[i])
                    block.add(m_commands[i], i);
            }
            const RunResult result = runRestore(block.text());
            if (result.end == RunResult::End::Exited && result.exitCode == 0)
                return finish();
            if (result.end != RunResult::End::Exited)
                return cannotRun(result);
            const Messages messages = parseMessages(result.exitCode, result.errors);
            if (messages.shortage)
                return cannotRun(result);
            std::vector<Refused> said = attribute(block, messages);
            if (said.empty()) {
                const RunResult empty = runRestore(RestoreBlock().text());
                if (empty.end != RunResult::End::Exited || empty.exitCode != 0)
                    return cannotRun(empty);
                return separately(messages.text);
            }
            const bool explained = dropWithForetold(said);
            if (messages.cut && !explained)
                dropRefusedElsewhere(said);
        }
        return separately("too many refusals");
    }

private:
    RunResult runRestore(const std::string& input)
    {
        ++m_outcome.processes;
        return runTool(m_paths.restore, {"--noflush"}, input, m_limits);
    }

    Outcome finish()
    {
        std::ranges::sort(m_outcome.refused, {}, &Refused::index);
        m_outcome.done = m_commands.size();
        return std::move(m_outcome);
    }

    Outcome cannotRun(const RunResult& result)
    {
        m_outcome.refused.clear();
        m_outcome.cannotRun = true;
        m_outcome.stopped = result.end == RunResult::End::Stopped;
        m_outcome.reason = cannotRunReason(m_paths, result);
        return std::move(m_outcome);
    }

    void drop(std::size_t index, const std::string& reason)
    {
        if (m_dropped[index])
            return;
        m_dropped[index] = true;
        m_outcome.refused.push_back({index, reason});
    }

    // What works on a chain that turned out to be somebody else's.
    void dropOnChainsOfOthers()
    {
        OwnChains own = m_own;
        for (std::size_t i = 0; i < m_commands.size(); ++i) {
            if (!m_dropped[i] && !own.mayCarryOut(m_commands[i]))
                drop(i, std::string(notOurChain));
            if (!m_dropped[i])
                own.expect(m_commands[i]);
        }
    }

    // Which commands the messages are about, ascending.
    std::vector<Refused> attribute(const RestoreBlock& block, const Messages& messages) const
    {
        std::vector<Refused> said;
        for (const Messages::Line& line : messages.lines) {
            if (const std::optional<std::size_t> index = block.owner(line.number))
                said.push_back({*index, line.reason});
            else if (block.isCommit(line.number))
                attributeToJump(line.reason, said);
        }
        std::ranges::sort(said, {}, &Refused::index);
        return said;
    }

    // "Chain 'X' does not exist" names the COMMIT line: it is about the first jump to X that is left.
    void attributeToJump(const std::string& reason, std::vector<Refused>& said) const
    {
        const std::size_t first = reason.find('\'');
        const std::size_t last = reason.rfind('\'');
        if (first == last)
            return;
        const std::string chain = reason.substr(first + 1, last - first - 1);
        for (std::size_t i = 0; i < m_commands.size(); ++i) {
            const Command& command = m_commands[i];
            const bool hasRule = command.kind == CommandKind::Append || command.kind == CommandKind::Insert ||
                                 command.kind == CommandKind::Delete;
            if (!m_dropped[i] && hasRule && command.rule.target == chain) {
                said.push_back({i, reason});
                return;
            }
        }
    }

    // For each command why the tables make the tool refuse it. What is dropped has no effect.
    std::vector<std::optional<std::string>> foretell() const
    {
        TableModel model(*m_table);
        std::vector<std::optional<std::string>> reasons(m_commands.size());
        for (std::size_t i = 0; i < m_commands.size(); ++i) {
            if (!m_dropped[i])
                reasons[i] = model.apply(m_commands[i]);
        }
        return reasons;
    }

    // Drops what the tool named. When the tables explain one of these, everything else that they explain goes as well:
    // the tool would name it next. Returns whether they do.
    bool dropWithForetold(const std::vector<Refused>& said)
    {
        if (!m_tableRead) {
            m_table = readTable(m_paths, nullptr, m_limits);
            m_tableRead = true;
            ++m_outcome.processes;
        }
        if (m_table) {
            const std::vector<std::optional<std::string>> reasons = foretell();
            // A busy chain and a jump to nowhere are noticed last: what the tool said of a later line may follow from
            // it.
            const auto noticedLate = [&](std::size_t i) {
                return reasons[i] &&
                       (m_commands[i].kind == CommandKind::DeleteChain || reasons[i]->starts_with("Chain '"));
            };
            bool explained = std::ranges::any_of(said, [&](const Refused& r) { return reasons[r.index].has_value(); });
            // Of a jump to nowhere the tool does not say which one it is; it may be any behind the line that explains
            // it.
            const bool anywhere = said.front().reason.starts_with("Chain '");
            const std::size_t end = anywhere ? reasons.size() : said.front().index;
            for (std::size_t i = 0; i < end && !explained; ++i)
                explained = noticedLate(i);
            if (explained) {
                for (std::size_t i = 0; i < reasons.size(); ++i) {
                    if (reasons[i])
                        drop(i, *reasons[i]);
                }
                return true;
            }
        }
        for (const Refused& refused : said)
            drop(refused.index, refused.reason);
        return false;
    }

    // The tool had no room to list all the rules that the kernel refuses.
    void dropRefusedElsewhere(std::span<const Refused> listed)
    {
        const Trial trial = tryElsewhere(m_paths, m_commands, listed, m_dropped, m_limits);
        m_outcome.processes += trial.processes;
        for (const Refused& refused : trial.refused)
            drop(refused.index, refused.reason);
    }

    // The last resort: every command a transaction of its own.
    Outcome separately(const std::string& why)
    {
        m_outcome.notAtomic = why.empty() ? "no message" : why;
        for (std::size_t i = 0; i < m_commands.size(); ++i) {
            dropOnChainsOfOthers();
            if (m_dropped[i])
                continue;
            RestoreBlock block;
            block.add(m_commands[i], i);
            const RunResult result = runRestore(block.text());
            const Messages messages = parseMessages(result.exitCode, result.errors);
            if (result.end != RunResult::End::Exited || (result.exitCode != 0 && messages.shortage)) {
                std::erase_if(m_outcome.refused, [&](const Refused& refused) { return refused.index >= i; });
                std::ranges::sort(m_outcome.refused, {}, &Refused::index);
                m_outcome.cannotRun = true;
                m_outcome.stopped = result.end == RunResult::End::Stopped;
                m_outcome.reason = cannotRunReason(m_paths, result);
                m_outcome.done = i;
                return std::move(m_outcome);
            }
            if (result.exitCode != 0) {
                drop(i, messages.text.empty() ? why : messages.text);
            }
        }
        return finish();
    }

    const ToolPaths& m_paths;
    std::span<const Command> m_commands;
    const OwnChains& m_own;
    const RunLimits& m_limits;
    std::vector<bool> m_dropped;
    bool m_tableRead = false;
    std::optional<Table> m_table;
    Outcome m_outcome;
};

// How many of the commands can share a transaction: the kernel cannot make and delete a chain in the same one. This
// happens only when several commits had to wait, and ends the first of them.
std::size_t transactionLength(std::span<const Command> commands)
{
    std::unordered_set<std::string_view> made;
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (commands[i].kind == CommandKind::NewChain)
            made.insert(commands[i].chain);
        else if (commands[i].kind == CommandKind::DeleteChain && made.contains(commands[i].chain))
            return i;
    }
    return commands.size();
}

// The command as arguments of the tool, one a word. Only a log prefix has blanks, inside its quotes.
std::vector<std::string> arguments(const Command& command)
{
    std::vector<std::string> words;
    bool quotes = false;
    words.emplace_back();
    for (const char c : toText(command)) {
        if (c == '"')
            quotes = !quotes;
        else if (c == ' ' && !quotes)
            words.emplace_back();
        else
            words.back() += c;
    }
    return words;
}

void noteCarriedOut(std::span<const Command> commands, std::span<const Refused> refused, OwnChains& own)
{
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (!refused.empty() && refused.front().index == i)
            refused = refused.subspan(1);
        else
            own.note(commands[i]);
    }
}

} // namespace

Outcome applyTransaction(const ToolPaths& paths, std::span<const Command> commands, const OwnChains& own,
                         const RunLimits& limits)
{
    Outcome whole;
    OwnChains now = own;
    while (whole.done < commands.size()) {
        const std::span<const Command> rest = commands.subspan(whole.done);
        Outcome part = Transaction(paths, rest.first(transactionLength(rest)), now, limits).apply();
        noteCarriedOut(rest.first(part.done), part.refused, now);
        for (Refused& refused : part.refused)
            whole.refused.push_back({refused.index + whole.done, std::move(refused.reason)});
        whole.done += part.done;
        if (!part.notAtomic.empty())
            whole.notAtomic = std::move(part.notAtomic);
        whole.processes += part.processes;
        if (part.cannotRun) {
            whole.cannotRun = true;
            whole.stopped = part.stopped;
            whole.reason = std::move(part.reason);
            break;
        }
    }
    return whole;
}

Outcome applyOneByOne(const ToolPaths& paths, std::span<const Command> commands, OwnChains own, const RunLimits& limits)
{
    Outcome outcome;
    for (; outcome.done < commands.size(); ++outcome.done) {
        if (!own.mayCarryOut(commands[outcome.done])) {
            outcome.refused.push_back({outcome.done, std::string(notOurChain)});
            continue;
        }
        ++outcome.processes;
        const RunResult result = runTool(paths.ebtables, arguments(commands[outcome.done]), {}, limits);
        if (result.end != RunResult::End::Exited) {
            outcome.cannotRun = true;
            outcome.stopped = result.end == RunResult::End::Stopped;
            outcome.reason = result.reason;
            return outcome;
        }
        if (result.exitCode == 0) {
            own.note(commands[outcome.done]);
            continue;
        }
        const Messages messages = parseMessages(result.exitCode, result.errors);
        const std::string& text = messages.text;
        const bool forbidden =
            text.find("ermission") != std::string::npos || text.find("not permitted") != std::string::npos;
        if (forbidden || messages.shortage) {
            outcome.cannotRun = true;
            outcome.reason = paths.ebtables + ": " + text +
                             (forbidden ? "; run as root or with CAP_NET_ADMIN" : "; is there memory enough?");
            return outcome;
        }
        outcome.refused.push_back({outcome.done, text.empty() ? "refused without a reason" : text});
    }
    return outcome;
}

std::optional<Table> readTable(const ToolPaths& paths, std::string* reason, const RunLimits& limits)
{
    const RunResult result = runTool(paths.save, {}, {}, limits);
    if (result.end == RunResult::End::Exited && result.exitCode == 0)
        return parseSaved(result.output);
    if (reason != nullptr)
        *reason = result.end != RunResult::End::Exited
                      ? result.reason
                      : paths.save + " ended with status " + std::to_string(result.exitCode) + ": " +
                            text::oneLine(result.errors);
    return std::nullopt;
}

} // namespace ebtables
