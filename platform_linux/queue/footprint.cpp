#include "platform_linux/queue/footprint.hpp"

#include "ebtables/line_parser.hpp"
#include "ebtables/operands.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <cstdio>

namespace ebtables
{

namespace
{

constexpr std::string_view firstLine = "moatkeeper record 1";

// FNV-1a: finds damage, not malice; who may write the file is checked by its owner and mode.
std::string checksum(std::string_view text)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    char digits[24];
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return digits;
}

// Takes a line, without its newline, off the text.
std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

} // namespace

void Footprint::note(const Command& command)
{
    const bool own = m_chains.contains(command.chain);
    switch (command.kind) {
    case CommandKind::NewChain:
        m_chains.insert(command.chain);
        break;
    case CommandKind::DeleteChain:
        m_chains.erase(command.chain);
        std::erase_if(m_rules, [&](const auto& rule) { return rule.first.first == command.chain; });
        break;
    case CommandKind::Flush:
        std::erase_if(m_rules, [&](const auto& rule) { return rule.first.first == command.chain; });
        break;
    case CommandKind::Append:
    case CommandKind::Insert:
        if (!own)
            ++m_rules[{command.chain, ebtables::toText(command.rule)}];
        break;
    case CommandKind::Delete:
        if (const auto found = m_rules.find({command.chain, ebtables::toText(command.rule)});
            found != m_rules.end() && --found->second == 0)
            m_rules.erase(found);
        break;
    case CommandKind::Policy:
        if (isBuiltIn(command.chain)) {
            if (command.policy == "ACCEPT")
                m_policies.erase(command.chain);
            else
                m_policies.insert(command.chain);
        }
        break;
    }
}

void Footprint::addRule(std::string_view chain, std::string_view rule)
{
    ++m_rules[{std::string(chain), std::string(rule)}];
}

unsigned Footprint::rules(std::string_view chain, std::string_view rule) const
{
    const auto found = m_rules.find({std::string(chain), std::string(rule)});
    return found == m_rules.end() ? 0 : found->second;
}

void Footprint::unite(const Footprint& other)
{
    m_chains.insert(other.m_chains.begin(), other.m_chains.end());
    m_policies.insert(other.m_policies.begin(), other.m_policies.end());
    for (const auto& [rule, count] : other.m_rules) {
        unsigned& mine = m_rules[rule];
        mine = std::max(mine, count);
    }
}

std::vector<Command> Footprint::undo(const Table& table) const
{
    std::vector<Command> commands;
    const auto add = [&](CommandKind kind, const std::string& chain) -> Command& {
        Command& command = commands.emplace_back();
        command.kind = kind;
        command.chain = chain;
        return command;
    };
    Table left = table;
    for (const auto& [placed, count] : m_rules) {
        const std::string& name = placed.first;
        const std::string& text = placed.second;
        Chain* chain = left.find(name);
        for (unsigned i = 0; chain != nullptr && i < count; ++i) {
            const auto found = std::ranges::find_if(
                chain->rules, [&](const TableRule& r) { return r.rule && ebtables::toText(*r.rule) == text; });
            if (found == chain->rules.end())
                break;
            add(CommandKind::Delete, name).rule = *found->rule;
            chain->rules.erase(found);
        }
    }
    for (const CommandKind kind : {CommandKind::Flush, CommandKind::DeleteChain}) {
        for (const std::string& chain : m_chains) {
            if (table.find(chain) != nullptr)
                add(kind, chain);
        }
    }
    for (const std::string& chain : m_policies)
        add(CommandKind::Policy, chain).policy = "ACCEPT";
    return commands;
}

std::string Footprint::toText(std::string_view networkNamespace) const
{
    std::string text = std::string(firstLine) + "\nnamespace " + std::string(networkNamespace) + '\n';
    for (const std::string& chain : m_chains)
        text += "chain " + chain + '\n';
    for (const auto& [placed, count] : m_rules) {
        for (unsigned i = 0; i < count; ++i)
            text += "rule " + placed.first + ' ' + placed.second + '\n';
    }
    for (const std::string& chain : m_policies)
        text += "policy " + chain + '\n';
    return text + "end " + checksum(text) + '\n';
}

std::optional<Footprint> Footprint::fromText(std::string_view text, std::string_view networkNamespace,
                                             std::string& reason)
{
    const std::size_t end = text.rfind("end ");
    if (!text.starts_with(firstLine) || end == std::string_view::npos ||
        text.substr(end) != "end " + checksum(text.substr(0, end)) + '\n') {
        reason = "damaged: its checksum does not fit";
        return std::nullopt;
    }
    text = text.substr(0, end);
    takeLine(text);
    if (takeLine(text) != "namespace " + std::string(networkNamespace)) {
        reason = "from another network namespace";
        return std::nullopt;
    }
    Footprint footprint;
    while (!text.empty()) {
        const std::string_view line = takeLine(text);
        const std::size_t first = std::min(line.size(), line.find(' '));
        const std::string_view kind = line.substr(0, first);
        std::string_view rest = line.substr(std::min(line.size(), first + 1));
        const std::string chain(rest.substr(0, rest.find(' ')));
        rest.remove_prefix(std::min(rest.size(), chain.size() + 1));
        if (!isChainName(chain)) {
            reason = "damaged: no chain name in \"" + text::oneLine(line) + '"';
            return std::nullopt;
        }
        if (kind == "chain" && !isBuiltIn(chain)) {
            footprint.m_chains.insert(chain);
        } else if (kind == "policy" && isBuiltIn(chain)) {
            footprint.m_policies.insert(chain);
        } else if (const auto rule = parseRule(rest, chain); kind == "rule" && rule) {
            footprint.addRule(chain, ebtables::toText(*rule));
        } else {
            reason = "damaged: unknown line \"" + text::oneLine(line) + '"';
            return std::nullopt;
        }
    }
    return footprint;
}

} // namespace ebtables
