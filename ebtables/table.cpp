#include "ebtables/table.hpp"

#include "ebtables/line_parser.hpp"

#include <algorithm>
#include <charconv>

namespace ebtables
{

namespace
{

// Takes "N" up to the given character off the text.
std::optional<std::uint64_t> takeNumber(std::string_view& text, char end)
{
    std::uint64_t value = 0;
    const auto [next, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || next == text.data() + text.size() || *next != end)
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(next - text.data()) + 1);
    return value;
}

// Takes "[packets:bytes] " off the beginning.
std::optional<Counters> takeCounters(std::string_view& line)
{
    if (!line.starts_with('['))
        return std::nullopt;
    std::string_view rest = line.substr(1);
    const auto packets = takeNumber(rest, ':');
    const auto bytes = packets ? takeNumber(rest, ']') : std::nullopt;
    if (!bytes)
        return std::nullopt;
    line = rest.substr(std::min(rest.size(), rest.find_first_not_of(' ')));
    return Counters{*packets, *bytes};
}

// Takes " -c packets bytes" off the end.
std::optional<Counters> takeTrailingCounters(std::string_view& options)
{
    const std::size_t at = options.rfind(" -c ");
    if (at == std::string_view::npos)
        return std::nullopt;
    const std::string text = std::string(options.substr(at + 4)) + ' ';
    std::string_view rest = text;
    const auto packets = takeNumber(rest, ' ');
    const auto bytes = packets ? takeNumber(rest, ' ') : std::nullopt;
    if (!bytes || rest.find_first_not_of(' ') != std::string_view::npos)
        return std::nullopt;
    options = options.substr(0, at);
    return Counters{*packets, *bytes};
}

std::string_view trim(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \r");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \r") - first + 1);
}

Chain& chainNamed(Table& table, std::string_view name)
{
    if (Chain* chain = table.find(name))
        return *chain;
    return table.chains.emplace_back(Chain{std::string(name), "ACCEPT", {}, noOrigin});
}

} // namespace

const Chain* Table::find(std::string_view chain) const
{
    const auto found = std::ranges::find(chains, chain, &Chain::name);
    return found == chains.end() ? nullptr : &*found;
}

Chain* Table::find(std::string_view chain)
{
    const auto found = std::ranges::find(chains, chain, &Chain::name);
    return found == chains.end() ? nullptr : &*found;
}

Table emptyTable()
{
    Table table;
    for (const char* name : {"INPUT", "FORWARD", "OUTPUT"})
        chainNamed(table, name);
    return table;
}

Table parseSaved(std::string_view output)
{
    Table table = emptyTable();
    bool inFilter = false;
    while (!output.empty()) {
        const std::size_t end = output.find('\n');
        std::string_view line = trim(output.substr(0, end));
        output.remove_prefix(end == std::string_view::npos ? output.size() : end + 1);
        if (line.starts_with('*')) {
            inFilter = line == "*filter";
            continue;
        }
        if (!inFilter)
            continue;
        if (line.starts_with(':')) {
            const std::size_t blank = line.find(' ');
            if (blank == std::string_view::npos)
                continue;
            const std::string_view policy = trim(line.substr(blank));
            chainNamed(table, line.substr(1, blank - 1)).policy = policy.substr(0, policy.find(' '));
            continue;
        }
        std::optional<Counters> counters = takeCounters(line);
        if (!line.starts_with("-A "))
            continue;
        line.remove_prefix(3);
        const std::size_t blank = line.find(' ');
        const std::string name(line.substr(0, blank));
        std::string_view options = blank == std::string_view::npos ? std::string_view() : trim(line.substr(blank));
        if (!counters)
            counters = takeTrailingCounters(options);
        chainNamed(table, name).rules.push_back({std::string(options), parseRule(options, name), counters, noOrigin});
    }
    return table;
}

} // namespace ebtables
