#include "platform_linux/start_settings.hpp"

#include "ebtables/operands.hpp"
#include "text/one_line.hpp"

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <string_view>

namespace zol::cfg
{

namespace
{

constexpr const char* untilConfigured = "MOATKEEPER_UNTIL_CONFIGURED";
constexpr const char* allowed = "MOATKEEPER_ALLOWED";
constexpr const char* waitSeconds = "MOATKEEPER_WAIT_SECONDS";

constexpr std::size_t mostAllowed = 64;
constexpr unsigned longestWait = 60; // the unit's time limit for the start is above it

std::string_view valueOf(const char* variable)
{
    return variable != nullptr ? std::string_view(variable) : std::string_view();
}

std::string problem(const char* variable, std::string_view value, const std::string& expected)
{
    return std::string(variable) + " in the environment: " + text::inQuotes(value) + ": " + expected;
}

std::vector<std::string_view> wordsOf(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    std::vector<std::string_view> words;
    for (std::size_t begin = text.find_first_not_of(blanks); begin != std::string_view::npos;
         begin = text.find_first_not_of(blanks)) {
        text.remove_prefix(begin);
        words.push_back(text.substr(0, text.find_first_of(blanks)));
        text.remove_prefix(words.back().size());
    }
    return words;
}

} // namespace

StartSettings StartSettings::from(const Variables& variables)
{
    StartSettings settings;
    const std::string_view until = valueOf(variables.untilConfigured);
    settings.closed = !until.empty() && until != "open";
    if (settings.closed && until != "closed")
        settings.problems.push_back(
            problem(untilConfigured, until, "expected open or closed. It is closed until there is a configuration"));

    std::size_t entries = 0;
    for (const std::string_view word : wordsOf(valueOf(variables.allowed))) {
        const bool isMac = word.find(':') != std::string_view::npos; // no name of a port has one
        if (entries++ == mostAllowed) {
            settings.problems.push_back(problem(
                allowed, word, "expected at most " + std::to_string(mostAllowed) + " entries. The rest is left out"));
            break;
        }
        if (isMac ? ebtables::parseMac(word).has_value() : word != "+" && ebtables::parseInterface(word).has_value())
            (isMac ? settings.macs : settings.ports).emplace_back(word);
        else
            settings.problems.push_back(problem(allowed, word,
                                                "expected a MAC address, 02:00:00:00:00:01 for example, or the name of "
                                                "a port, of at most 15 bytes. It is left out"));
    }

    const std::string_view wait = valueOf(variables.waitSeconds);
    unsigned seconds = 0;
    const auto [end, error] = std::from_chars(wait.data(), wait.data() + wait.size(), seconds);
    if (error == std::errc() && end == wait.data() + wait.size() && seconds <= longestWait)
        settings.wait = std::chrono::seconds(seconds);
    else if (!wait.empty())
        settings.problems.push_back(problem(waitSeconds, wait,
                                            "expected a number from 0 to " + std::to_string(longestWait) + ". It is " +
                                                std::to_string(settings.wait.count())));
    return settings;
}

StartSettings StartSettings::fromEnvironment()
{
    return from({.untilConfigured = std::getenv(untilConfigured),
                 .allowed = std::getenv(allowed),
                 .waitSeconds = std::getenv(waitSeconds)});
}

std::vector<std::string> StartSettings::closingLines() const
{
    std::vector<std::string> lines;
    const auto add = [&](const std::string& line) { lines.push_back("ebtables " + line); };
    for (const char* chain : {"UnconfiguredInput", "UnconfiguredForward", "UnconfiguredPorts"}) {
        add(std::string("-N ") + chain);
        add(std::string("-P ") + chain + " RETURN");
    }
    for (const std::string& port : ports) {
        add("-A UnconfiguredInput -i " + port + " -j ACCEPT");
        add("-A UnconfiguredForward -i " + port + " -j UnconfiguredPorts");
        add("-A UnconfiguredPorts -o " + port + " -j ACCEPT");
    }
    for (const std::string& mac : macs) {
        for (const char* chain : {"UnconfiguredInput", "UnconfiguredForward"}) {
            add(std::string("-A ") + chain + " -s " + mac + " -j ACCEPT");
            add(std::string("-A ") + chain + " -d " + mac + " -j ACCEPT");
        }
    }
    add("-A INPUT -j UnconfiguredInput");
    add("-A FORWARD -j UnconfiguredForward");
    // Last, where lines are run one by one: who is allowed never meets a closed bridge.
    add("-P INPUT DROP");
    add("-P FORWARD DROP");
    return lines;
}

} // namespace zol::cfg
