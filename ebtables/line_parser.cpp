#include "ebtables/line_parser.hpp"

#include "ebtables/names.hpp"
#include "ebtables/operands.hpp"
#include "ebtables/words.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <cstdio>
#include <span>
#include <utility>

namespace ebtables
{

namespace
{

// Thrown inside this file only.
struct Refuse {
    LineError error;
};

[[noreturn]] void refuse(std::string_view word, std::string_view option, std::string expected)
{
    throw Refuse{{text::oneLine(word), std::string(option), std::move(expected)}};
}

enum class Option {
    In,
    Out,
    Source,
    Destination,
    Protocol,
    Jump,
    IpSource,
    IpDestination,
    IpProtocol,
    IpSourcePort,
    IpDestinationPort,
    Ip6Source,
    Ip6Destination,
    Ip6Protocol,
    Ip6SourcePort,
    Ip6DestinationPort,
    VlanId,
    VlanPriority,
    VlanEncapsulated,
    Log,
    LogPrefix,
    LogLevel,
    LogIp,
    LogArp,
    LogIp6,
};

constexpr std::pair<std::string_view, Option> optionNames[] = {
    {"-i", Option::In},
    {"--in-interface", Option::In},
    {"--in-if", Option::In},
    {"-o", Option::Out},
    {"--out-interface", Option::Out},
    {"--out-if", Option::Out},
    {"-s", Option::Source},
    {"--source", Option::Source},
    {"--src", Option::Source},
    {"-d", Option::Destination},
    {"--destination", Option::Destination},
    {"--dst", Option::Destination},
    {"-p", Option::Protocol},
    {"--protocol", Option::Protocol},
    {"--proto", Option::Protocol},
    {"-j", Option::Jump},
    {"--jump", Option::Jump},
    {"--ip-source", Option::IpSource},
    {"--ip-src", Option::IpSource},
    {"--ip-destination", Option::IpDestination},
    {"--ip-dst", Option::IpDestination},
    {"--ip-protocol", Option::IpProtocol},
    {"--ip-proto", Option::IpProtocol},
    {"--ip-source-port", Option::IpSourcePort},
    {"--ip-sport", Option::IpSourcePort},
    {"--ip-destination-port", Option::IpDestinationPort},
    {"--ip-dport", Option::IpDestinationPort},
    {"--ip6-source", Option::Ip6Source},
    {"--ip6-src", Option::Ip6Source},
    {"--ip6-destination", Option::Ip6Destination},
    {"--ip6-dst", Option::Ip6Destination},
    {"--ip6-protocol", Option::Ip6Protocol},
    {"--ip6-proto", Option::Ip6Protocol},
    {"--ip6-source-port", Option::Ip6SourcePort},
    {"--ip6-sport", Option::Ip6SourcePort},
    {"--ip6-destination-port", Option::Ip6DestinationPort},
    {"--ip6-dport", Option::Ip6DestinationPort},
    {"--vlan-id", Option::VlanId},
    {"--vlan-prio", Option::VlanPriority},
    {"--vlan-encap", Option::VlanEncapsulated},
    {"--log", Option::Log},
    {"--log-prefix", Option::LogPrefix},
    {"--log-level", Option::LogLevel},
    {"--log-ip", Option::LogIp},
    {"--log-arp", Option::LogArp},
    {"--log-ip6", Option::LogIp6},
};

std::optional<Option> optionByName(const Word& word)
{
    const auto* found = std::ranges::find_if(optionNames, [&](const auto& name) { return word.is(name.first); });
    return found == std::end(optionNames) ? std::nullopt : std::optional(found->second);
}

int logLevel(std::string_view word)
{
    if (const std::optional<int> named = logLevelByName(word))
        return *named;
    const std::optional<RangeMatch> number = parseDecimal(word, 7);
    return number ? number->first : -1;
}

// Parses the options of one rule.
class RuleParser
{
public:
    RuleParser(std::span<const Word> words, const std::string& chain) : m_words(words), m_chain(chain) {}

    Rule parse()
    {
        while (m_next < m_words.size())
            parseOption();
        checkNeeds();
        return std::move(m_rule);
    }

private:
    void parseOption()
    {
        m_negated = takeNegation();
        if (m_next == m_words.size())
            refuse("!", "", "an option after the !");
        const Word& word = m_words[m_next++];
        const std::optional<Option> option = optionByName(word);
        if (!option)
            refuse(word.text, "",
                   "an option that moatkeeper uses, such as -i, -o, -s, -d, -p, --ip-source, --vlan-id or -j");
        m_option = word.text;
        const unsigned bit = 1U << static_cast<unsigned>(*option);
        if ((m_seen & bit) != 0)
            refuse(m_option, "", "each option once");
        m_seen |= bit;
        store(*option);
    }

    bool takeNegation()
    {
        if (m_next < m_words.size() && m_words[m_next].is("!")) {
            ++m_next;
            return true;
        }
        return false;
    }

    // The option's value; "!" before it negates.
    std::string_view value(const char* expected, bool mayNegate = true)
    {
        if (m_next < m_words.size() && m_words[m_next].is("!")) {
            if (m_negated || !mayNegate)
                refuse("!", m_option, mayNegate ? "one ! only" : "no !");
            m_negated = takeNegation();
        } else if (m_negated && !mayNegate) {
            refuse("!", m_option, "no !");
        }
        if (m_next == m_words.size())
            refuse("", m_option, expected);
        const Word& word = m_words[m_next++];
        if (word.text.empty() && m_option != "--log-prefix")
            refuse(word.text, m_option, expected);
        if (!word.quoted && (word.text.front() == '-' || word.text == "!"))
            refuse(word.text, m_option, std::string(expected) + " and not an option");
        return word.text;
    }

    template <typename Match>
    void take(std::optional<Match>& match, std::optional<Match> (*parser)(std::string_view), const char* expected)
    {
        const std::string_view word = value(expected);
        match = parser(word);
        if (!match)
            refuse(word, m_option, expected);
        match->negated = m_negated;
    }

    void takeInterface(std::optional<InterfaceMatch>& match, const char* notIn)
    {
        if (m_chain == notIn)
            refuse(m_option, "", std::string("no such option in chain ") + notIn);
        take(match, parseInterface, "a port name of at most 15 characters, or its beginning and +");
        if (!match->name.empty())
            return;
        if (match->negated)
            refuse("+", m_option, "a port name after !: a lone + means every port");
        match.reset();
    }

    void takeDecimal(std::optional<RangeMatch>& match, unsigned largest, const char* expected)
    {
        const std::string_view word = value(expected);
        match = parseDecimal(word, largest);
        if (!match)
            refuse(word, m_option, expected);
        match->negated = m_negated;
    }

    LogOptions& log()
    {
        if (!m_rule.log)
            m_rule.log.emplace();
        if (m_negated)
            refuse("!", m_option, "no !");
        return *m_rule.log;
    }

    void takeTarget()
    {
        constexpr const char* expected = "ACCEPT, DROP, RETURN, CONTINUE or a chain name of at most 28 characters";
        const std::string_view word = value(expected, false);
        static constexpr std::string_view extensions[] = {"mark", "snat", "dnat", "redirect", "arpreply", "standard"};
        if (!isChainName(word) || word.size() > maxJumpTarget || isBuiltIn(word) ||
            std::ranges::find(extensions, word) != std::end(extensions))
            refuse(word, m_option, expected);
        m_rule.target = word;
    }

    void takePrefix()
    {
        constexpr const char* expected = "a text of at most 29 characters";
        const std::string_view word = value(expected, false);
        if (word.size() > maxLogPrefix)
            refuse(word, m_option, expected);
        log().prefix = word;
    }

    void takeLevel()
    {
        constexpr const char* expected = "emerg, alert, crit, error, warning, notice, info, debug or 0 to 7";
        const std::string_view word = value(expected, false);
        log().level = logLevel(word);
        if (log().level < 0)
            refuse(word, m_option, expected);
    }

    void store(Option option)
    {
        constexpr const char* mac =
            "a MAC address aa:bb:cc:dd:ee:ff, also with a /mask, or Unicast, Multicast, Broadcast, BGA";
        constexpr const char* ipv4 = "an IPv4 address, also with /bits or /mask";
        constexpr const char* ipv6 = "an IPv6 address, also with /bits or /mask";
        constexpr const char* protocol = "an IP protocol: its number 0 to 255 or a name such as tcp";
        constexpr const char* ports = "a port number 0 to 65535 or a range first:last";
        switch (option) {
        case Option::In:
            return takeInterface(m_rule.in, "OUTPUT");
        case Option::Out:
            return takeInterface(m_rule.out, "INPUT");
        case Option::Source:
            return take(m_rule.source, parseMac, mac);
        case Option::Destination:
            return take(m_rule.destination, parseMac, mac);
        case Option::Protocol:
            return take(m_rule.ethertype, parseEthertype,
                        "an ethertype: hexadecimal 0x600 to 0xffff, LENGTH or a name such as IPv4");
        case Option::Jump:
            return takeTarget();
        case Option::IpSource:
            return take(m_rule.ip.source, parseNetwork<4>, ipv4);
        case Option::IpDestination:
            return take(m_rule.ip.destination, parseNetwork<4>, ipv4);
        case Option::IpProtocol:
            return take(m_rule.ip.protocol, parseIpProtocol, protocol);
        case Option::IpSourcePort:
            return take(m_rule.ip.sourcePort, parsePorts, ports);
        case Option::IpDestinationPort:
            return take(m_rule.ip.destinationPort, parsePorts, ports);
        case Option::Ip6Source:
            return take(m_rule.ip6.source, parseNetwork<16>, ipv6);
        case Option::Ip6Destination:
            return take(m_rule.ip6.destination, parseNetwork<16>, ipv6);
        case Option::Ip6Protocol:
            return take(m_rule.ip6.protocol, parseIpProtocol, protocol);
        case Option::Ip6SourcePort:
            return take(m_rule.ip6.sourcePort, parsePorts, ports);
        case Option::Ip6DestinationPort:
            return take(m_rule.ip6.destinationPort, parsePorts, ports);
        case Option::VlanId:
            return takeDecimal(m_rule.vlan.id, 4094, "a VLAN id 0 to 4094");
        case Option::VlanPriority:
            return takeDecimal(m_rule.vlan.priority, 7, "a VLAN priority 0 to 7");
        case Option::VlanEncapsulated:
            return take(m_rule.vlan.encapsulated, parseEncapsulated,
                        "an ethertype: hexadecimal 0x3c to 0xffff or a name such as IPv4");
        case Option::Log:
            log();
            return;
        case Option::LogPrefix:
            return takePrefix();
        case Option::LogLevel:
            return takeLevel();
        case Option::LogIp:
            log().ip = true;
            return;
        case Option::LogArp:
            log().arp = true;
            return;
        case Option::LogIp6:
            log().ip6 = true;
            return;
        }
    }

    // What the kernel asks of options together.
    void checkNeeds() const
    {
        const auto isType = [&](std::uint16_t number, bool mayNegate) {
            return m_rule.ethertype && !m_rule.ethertype->lengthField && m_rule.ethertype->number == number &&
                   (mayNegate || !m_rule.ethertype->negated);
        };
        if (m_rule.ip.any() && !isType(0x0800, false))
            refuse("--ip-...", "", "-p IPv4 with it");
        if (m_rule.ip6.any() && !isType(0x86dd, false))
            refuse("--ip6-...", "", "-p IPv6 with it");
        if (m_rule.vlan.any() && !isType(0x8100, true))
            refuse("--vlan-...", "", "-p 802_1Q with it");
        checkPorts(m_rule.ip, "--ip-...-port", "--ip-protocol tcp, udp, udplite, sctp or dccp with it");
        checkPorts(m_rule.ip6, "--ip6-...-port", "--ip6-protocol tcp, udp, udplite, sctp or dccp with it");
    }

    template <std::size_t N>
    static void checkPorts(const IpMatches<N>& ip, const char* option, const char* expected)
    {
        static constexpr int withPorts[] = {6, 17, 33, 132, 136};
        if (!ip.sourcePort && !ip.destinationPort)
            return;
        if (!ip.protocol || ip.protocol->negated ||
            std::ranges::find(withPorts, ip.protocol->first) == std::end(withPorts))
            refuse(option, "", expected);
    }

    std::span<const Word> m_words;
    const std::string& m_chain;
    std::size_t m_next = 0;
    std::string_view m_option;
    bool m_negated = false;
    unsigned m_seen = 0;
    Rule m_rule;
};

constexpr std::pair<std::string_view, CommandKind> commandNames[] = {
    {"-A", CommandKind::Append},      {"--append", CommandKind::Append},
    {"-I", CommandKind::Insert},      {"--insert", CommandKind::Insert},
    {"-D", CommandKind::Delete},      {"--delete", CommandKind::Delete},
    {"-N", CommandKind::NewChain},    {"--new-chain", CommandKind::NewChain},
    {"-X", CommandKind::DeleteChain}, {"--delete-chain", CommandKind::DeleteChain},
    {"-F", CommandKind::Flush},       {"--flush", CommandKind::Flush},
    {"-P", CommandKind::Policy},      {"--policy", CommandKind::Policy},
};

std::string_view chainWord(std::span<const Word> words, std::string_view option)
{
    if (words.empty() || !isChainName(words.front().text))
        refuse(words.empty() ? "" : words.front().text, option, chainExpected);
    return words.front().text;
}

void expectEnd(std::span<const Word> words, std::string_view option)
{
    if (!words.empty())
        refuse(words.front().text, option, "nothing after it");
}

void parsePolicy(Command& command, std::span<const Word> words, std::string_view option)
{
    const bool builtIn = isBuiltIn(command.chain);
    const char* expected = builtIn ? "a policy: ACCEPT or DROP" : "a policy: ACCEPT, DROP or RETURN";
    const std::string_view word = words.empty() ? "" : words.front().text;
    if (word != "ACCEPT" && word != "DROP" && (builtIn || word != "RETURN"))
        refuse(word, option, expected);
    command.policy = word;
    expectEnd(words.subspan(1), option);
}

Command parseCommand(std::span<const Word> words)
{
    if (!words.front().is("ebtables"))
        refuse(words.front().text, "", "the command ebtables");
    words = words.subspan(1);
    const auto* found =
        words.empty()
            ? std::end(commandNames)
            : std::ranges::find_if(commandNames, [&](const auto& name) { return words.front().is(name.first); });
    if (found == std::end(commandNames))
        refuse(words.empty() ? "" : words.front().text, "", "one of -A, -I, -D, -N, -X, -F, -P");
    const std::string_view option = words.front().text;
    words = words.subspan(1);

    Command command;
    command.kind = found->second;
    command.chain = chainWord(words, option);
    words = words.subspan(1);
    switch (command.kind) {
    case CommandKind::Insert:
        if (!words.empty() && !words.front().text.empty() && words.front().text.front() >= '0' &&
            words.front().text.front() <= '9') {
            const std::optional<RangeMatch> position = parseDecimal(words.front().text, 65535);
            if (!position || position->first == 0)
                refuse(words.front().text, option, "a rule number 1 to 65535");
            command.position = position->first;
            words = words.subspan(1);
        }
        [[fallthrough]];
    case CommandKind::Append:
    case CommandKind::Delete:
        command.rule = RuleParser(words, command.chain).parse();
        break;
    case CommandKind::NewChain:
    case CommandKind::DeleteChain:
        if (isBuiltIn(command.chain) || isStandardTarget(command.chain))
            refuse(command.chain, option, "a chain of one's own, not a built-in one or a target");
        expectEnd(words, option);
        break;
    case CommandKind::Flush:
        expectEnd(words, option);
        break;
    case CommandKind::Policy:
        parsePolicy(command, words, option);
        break;
    }
    return command;
}

} // namespace

std::string LineError::text() const
{
    if (word.empty())
        return option.empty() ? "missing word: expected " + expected : option + " needs " + expected;
    return "word \"" + word + '"' + (option.empty() ? "" : " of " + option) + ": expected " + expected;
}

ParsedLine parseLine(std::string_view line)
{
    ParsedLine result;
    const SplitLine split = splitLine(line);
    if (split.error) {
        result.error = split.error;
        return result;
    }
    try {
        for (const Words& words : split.commands) {
            if (!words.empty())
                result.commands.push_back(parseCommand(words));
        }
    } catch (Refuse& refusal) {
        result.commands.clear();
        result.error = std::move(refusal.error);
    }
    return result;
}

std::optional<Rule> parseRule(std::string_view options, const std::string& chain, LineError* error)
{
    const SplitLine split = splitLine(options);
    try {
        if (split.error)
            throw Refuse{*split.error};
        if (split.commands.size() > 1)
            refuse(";", "", "one rule");
        return RuleParser(split.commands.front(), chain).parse();
    } catch (Refuse& refusal) {
        if (error != nullptr)
            *error = std::move(refusal.error);
        return std::nullopt;
    }
}

} // namespace ebtables
