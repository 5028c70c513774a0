#include "platform_linux/queue/trial.hpp"

#include "platform_linux/queue/messages.hpp"
#include "platform_linux/queue/restore_block.hpp"

#include <algorithm>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace ebtables
{

namespace
{

constexpr std::size_t listedPerBlock = 15; // the tool has room for so many, and not for many more
constexpr std::size_t blocksAtATime = 32;
constexpr const char* chainName = "T"; // short: its name is in each message, and their room is limited

constexpr std::size_t noCommand = std::numeric_limits<std::size_t>::max();

bool hasNewRule(const Command& command)
{
    return command.kind == CommandKind::Append || command.kind == CommandKind::Insert;
}

// Which options the rule has: "-p --ip-dport -j". Rules that are alike in this are often refused together.
std::string shape(const Rule& rule)
{
    std::istringstream words(toText(rule));
    std::string options;
    for (std::string word; words >> word;) {
        if (word.starts_with('-'))
            options += word + ' ';
    }
    return options;
}

// The rules to try, and how many of them probably hold as many refused ones as the tool can list.
struct Suspects {
    std::vector<std::size_t> indexes;
    std::size_t perBlock = listedPerBlock;
};

Suspects findSuspects(std::span<const Command> commands, std::span<const Refused> listed, const std::vector<bool>& done)
{
    std::set<std::string> shapes;
    for (const Refused& refused : listed)
        shapes.insert(shape(commands[refused.index].rule));
    Suspects suspects;
    // The last one listed may be the last one refused of all, however many there are in between.
    const std::size_t last = listed.size() < 2 ? 0 : listed.size() - 2;
    std::size_t seen = 0; // of these shapes, as far as the list goes
    for (std::size_t i = 0; i < commands.size(); ++i) {
        if (!hasNewRule(commands[i]) || !shapes.contains(shape(commands[i].rule)))
            continue;
        if (i <= listed[last].index)
            ++seen;
        if (!done[i])
            suspects.indexes.push_back(i);
    }
    suspects.perBlock = std::max(listedPerBlock, listedPerBlock * seen / (last + 1));
    return suspects;
}

// Dealt out like cards: rules that are refused often stand together, or at regular distances, which an odd number of
// blocks spreads as well.
std::vector<std::vector<std::size_t>> deal(const std::vector<std::size_t>& indexes, std::size_t perBlock)
{
    std::vector<std::vector<std::size_t>> blocks((indexes.size() / perBlock) | 1U);
    for (std::size_t i = 0; i < indexes.size(); ++i)
        blocks[i % blocks.size()].push_back(indexes[i]);
    return blocks;
}

RestoreBlock trialBlock(std::span<const Command> commands, const std::vector<std::size_t>& indexes)
{
    RestoreBlock block;
    Command command;
    command.kind = CommandKind::NewChain;
    command.chain = chainName;
    block.add(command, noCommand);
    command.kind = CommandKind::Append;
    for (const std::size_t index : indexes) {
        command.rule = commands[index].rule;
        if (!isStandardTarget(command.rule.target))
            command.rule.target = "CONTINUE";
        block.add(command, index);
    }
    return block;
}

// Which of the block's rules the messages name. Of a list that was cut off, the rules behind the last line but one are
// added to the unknown ones.
void collect(const RestoreBlock& block, const std::vector<std::size_t>& indexes, const RunResult& result, Trial& trial,
             std::vector<std::size_t>& unknown)
{
    const Messages messages = parseMessages(result.exitCode, result.errors);
    if (messages.shortage) // says nothing of the rules
        return;
    std::vector<std::size_t> listed;
    for (const Messages::Line& line : messages.lines) {
        const std::optional<std::size_t> index = block.owner(line.number);
        if (!index || *index == noCommand || (!listed.empty() && listed.back() >= *index))
            continue;
        trial.refused.push_back({*index, line.reason});
        listed.push_back(*index);
    }
    if (!messages.cut || listed.size() < 2)
        return;
    for (const std::size_t index : indexes) {
        if (index > listed[listed.size() - 2] && index != listed.back())
            unknown.push_back(index);
    }
}

} // namespace

Trial tryElsewhere(const ToolPaths& paths, std::span<const Command> commands, std::span<const Refused> listed,
                   const std::vector<bool>& done, const RunLimits& limits)
{
    Trial trial;
    auto [unknown, perBlock] = findSuspects(commands, listed, done);
    for (std::size_t before = unknown.size() + 1; !unknown.empty() && unknown.size() < before;) {
        before = unknown.size();
        const std::vector<std::vector<std::size_t>> blocks = deal(std::exchange(unknown, {}), perBlock);
        for (std::size_t first = 0; first < blocks.size(); first += blocksAtATime) {
            const std::span wave = std::span(blocks).subspan(first, std::min(blocksAtATime, blocks.size() - first));
            std::vector<RestoreBlock> texts;
            std::vector<std::string> inputs;
            for (const std::vector<std::size_t>& indexes : wave)
                inputs.push_back(texts.emplace_back(trialBlock(commands, indexes)).text());
            const std::vector<RunResult> results =
                subprocess::runTogether(paths.restore, {"--noflush"}, inputs, limits, subprocess::Network::OneOfItsOwn);
            trial.processes += static_cast<unsigned>(results.size());
            for (std::size_t i = 0; i < results.size(); ++i) {
                if (results[i].end != RunResult::End::Exited || (results[i].exitCode != 0 && results[i].exitCode != 4))
                    return trial; // no namespace can be made, or no process: the whole transaction tells, bit by bit
                if (results[i].exitCode == 4)
                    collect(texts[i], wave[i], results[i], trial, unknown);
            }
        }
    }
    return trial;
}

} // namespace ebtables
