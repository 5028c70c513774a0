#include "ebtables/allowed_forms.hpp"

#include "ebtables/words.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ebtables
{

namespace
{

// The whole language of the handler.
constexpr Form forms[] = {
    // The four chains: made and hooked in once, taken out at the end.
    {"line", "-N {chain}"},
    {"line", "-P {chain} RETURN"},
    {"line", "-A INPUT -j {input}"},
    {"line", "-A FORWARD -j {forward}"},
    {"line", "-D INPUT -j {input}"},
    {"line", "-D FORWARD -j {forward}"},
    {"line", "-X {chain}"},

    // What frames get that nothing else decides.
    {"line", "-P INPUT {verdict}"},
    {"line", "-P FORWARD {verdict}"},

    // Rules and policies: each chain is emptied and filled anew.
    {"line", "-F {chain}"},
    {"line", "-A UserInputRules -i <port> {frame} {end}"},
    {"line", "-A UserForwardRules -i <port> -o <port> {frame} {end}"},
    {"line", "-A UserInputPolicy -i <port> {end}"},
    {"line", "-A UserForwardPolicy -i <port> -o <port> {end}"},

    // A filter: its chain, the jumps to it in both directions, and the way back.
    {"line", "-N <filter> ; -P <filter> {standard}"},
    {"line", "-I FORWARD 1 -i <port> -o <port> {jump} ; -I FORWARD 1 -o <port> -i <port> {jump} ;"},
    {"line", "-D FORWARD -i <port> -o <port> {jump} ; -D FORWARD -o <port> -i <port> {jump} ;"},
    {"line", "-F <filter> ; -X <filter>"},

    // The rules of a filter.
    {"line", "-A <filter> -s <mac> -j {exception}"},
    {"line", "-A <filter> -p 0x800 --ip-source <network> -j {exception}"},
    {"line", "-A <filter> -p 0x86DD --ip6-source <network> -j {exception}"},
    {"line", "-A <filter> -p 802_1Q --vlan-id <vlan> -j {exception}"},

    {"chain", "{input}"},
    {"chain", "{forward}"},
    {"input", "UserInputRules"},
    {"input", "UserInputPolicy"},
    {"forward", "UserForwardRules"},
    {"forward", "UserForwardPolicy"},

    {"frame", "[-d <mac>] [-s <mac>] {protocol}"},
    {"protocol", ""},
    {"protocol", "-p 802_1Q --vlan-id <vlan> [--vlan-encap <ethertype>]"},
    {"protocol", "-p <ethertype> [--ip-source <network>] [--ip-destination <network>] [--ip-protocol {transport}] "
                 "[--ip-destination-port <number>]"},
    {"protocol", "-p <ethertype> [--ip6-source <network>] [--ip6-destination <network>] [--ip6-protocol {transport}] "
                 "[--ip6-destination-port <number>]"},
    {"transport", "6"},
    {"transport", "17"},

    {"end", "[--log --log-prefix <accepted>] -j ACCEPT"},
    {"end", "[--log --log-prefix <denied>] -j DROP"},

    {"jump", "-j <filter>"},
    {"jump", "-p 0x800 -j <filter>"},
    {"jump", "-p 0x86dd -j <filter>"},
    {"jump", "-p 0x8100 -j <filter>"},

    {"verdict", "ACCEPT"},
    {"verdict", "DROP"},
    {"standard", "RETURN"},
    {"standard", "DROP"},
    {"exception", "RETURN"},
    {"exception", "DROP"},
};

constexpr std::string_view accepted = "Moatkeeper accepted: ";
constexpr std::string_view denied = "Moatkeeper denied: ";

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// A word of the line, or a `;`.
struct Token {
    Word word;
    bool separator = false;

    bool is(std::string_view plain) const { return !separator && word.is(plain); }
    bool isOperand() const
    {
        return !separator && !word.quoted && !word.text.empty() && word.text != "!" && word.text.front() != '-';
    }
    bool isPrefix(std::string_view prefix) const { return !separator && word.quoted && word.text == prefix; }
    bool isChain() const { return !separator && !word.quoted && isFilterChain(word.text); }
};

// A set of places in a line: bit n is the place before token n.
using Places = std::uint64_t;
constexpr std::size_t mostTokens = 60;

// A part of a form, ready to be compared.
struct Part {
    enum class Kind { Word, Separator, Operand, Filter, Accepted, Denied, Optional, Named };
    Kind kind;
    std::string_view text;           // the word, or what stands in the brackets
    std::vector<Part> inside;        // Optional
    std::vector<std::size_t> choice; // Named: which of the forms
};
using Parts = std::vector<Part>;

class FormReader
{
public:
    explicit FormReader(std::string_view form) : m_rest(form) {}

    Parts read()
    {
        Parts parts;
        while (!m_rest.empty()) {
            const char first = m_rest.front();
            if (first == ']' || first == ' ')
                m_rest.remove_prefix(1);
            if (first == ']')
                break;
            if (first == '[') {
                m_rest.remove_prefix(1);
                parts.push_back({Part::Kind::Optional, {}, read(), {}});
            } else if (first != ' ') {
                parts.push_back(readWord());
            }
        }
        return parts;
    }

private:
    Part readWord()
    {
        const std::size_t end = std::min(m_rest.find_first_of(" ]"), m_rest.size());
        const std::string_view word = m_rest.substr(0, end);
        m_rest.remove_prefix(end);
        if (word == ";")
            return {Part::Kind::Separator, word, {}, {}};
        if (word.front() == '{')
            return {Part::Kind::Named, word, {}, formsOf(word.substr(1, word.size() - 2))};
        if (word.front() != '<')
            return {Part::Kind::Word, word, {}, {}};
        using Kind = Part::Kind;
        return {word == "<filter>"     ? Kind::Filter
                : word == "<accepted>" ? Kind::Accepted
                : word == "<denied>"   ? Kind::Denied
                                       : Kind::Operand,
                word,
                {},
                {}};
    }

    static std::vector<std::size_t> formsOf(std::string_view name)
    {
        std::vector<std::size_t> choice;
        for (std::size_t i = 0; i < std::size(forms); ++i) {
            if (forms[i].name == name)
                choice.push_back(i);
        }
        if (choice.empty())
            throw std::logic_error("no form is called " + std::string(name));
        return choice;
    }

    std::string_view m_rest;
};

const std::array<Parts, std::size(forms)>& readForms()
{
    static const std::array<Parts, std::size(forms)> all = [] {
        std::array<Parts, std::size(forms)> result;
        for (std::size_t i = 0; i < result.size(); ++i)
            result[i] = FormReader(forms[i].form).read();
        return result;
    }();
    return all;
}

// The forms of a whole line.
const std::vector<const Parts*>& readLines()
{
    static const std::vector<const Parts*> lines = [] {
        std::vector<const Parts*> result;
        for (std::size_t i = 0; i < std::size(forms); ++i) {
            if (forms[i].name == "line")
                result.push_back(&readForms()[i]);
        }
        return result;
    }();
    return lines;
}

// Compares a line with all forms at once: each part moves the set of places that the parts before it have reached.
class Comparison
{
public:
    explicit Comparison(std::span<const Token> tokens) : m_tokens(tokens) {}

    std::optional<LineError> run()
    {
        Places ends = afterALine();
        if ((ends >> m_tokens.size() & 1) != 0)
            return std::nullopt;
        m_explaining = true;
        ends = afterALine();
        if (ends != 0) { // a whole form, and something behind it
            const std::size_t end = static_cast<std::size_t>(std::bit_width(ends)) - 1;
            if (end >= m_furthest)
                m_expected.assign(1, "nothing after it");
            m_furthest = std::max(m_furthest, end);
        }
        return error();
    }

private:
    Places afterALine()
    {
        Places ends = 0;
        for (const Parts* line : readLines())
            ends |= after(*line, 1);
        return ends;
    }

    Places after(const Parts& parts, Places places)
    {
        for (const Part& part : parts) {
            if (places == 0)
                break;
            places = after(part, places);
        }
        return places;
    }

    Places after(const Part& part, Places places)
    {
        if (part.kind == Part::Kind::Optional)
            return places | after(part.inside, places);
        Places reached = 0;
        if (part.kind == Part::Kind::Named) {
            for (const std::size_t form : part.choice)
                reached |= after(readForms()[form], places);
            return reached;
        }
        for (; places != 0; places &= places - 1) {
            const auto at = static_cast<std::size_t>(std::countr_zero(places));
            const std::size_t words = taken(part, at);
            if (words > 0)
                reached |= Places{1} << (at + words);
            else if (m_explaining)
                missed(part, at);
        }
        return reached;
    }

    // How many tokens from this one on the part is; 0 when it is none of them.
    std::size_t taken(const Part& part, std::size_t at) const
    {
        if (at == m_tokens.size())
            return 0;
        const Token& token = m_tokens[at];
        switch (part.kind) {
        case Part::Kind::Word:
            return token.is(part.text) ? 1 : 0;
        case Part::Kind::Separator:
            return token.separator ? 1 : 0;
        case Part::Kind::Operand:
            if (token.isOperand())
                return 1;
            return token.is("!") && at + 1 < m_tokens.size() && m_tokens[at + 1].isOperand() ? 2 : 0;
        case Part::Kind::Filter:
            return token.isChain() ? 1 : 0;
        case Part::Kind::Accepted:
            return token.isPrefix(accepted) ? 1 : 0;
        case Part::Kind::Denied:
            return token.isPrefix(denied) ? 1 : 0;
        case Part::Kind::Optional:
        case Part::Kind::Named:
            break;
        }
        return 0;
    }

    // What would have gone further than anything did.
    void missed(const Part& part, std::size_t at)
    {
        if (at < m_furthest)
            return;
        if (at > m_furthest)
            m_expected.clear();
        m_furthest = at;
        if (std::ranges::find(m_expected, part.text) == m_expected.end())
            m_expected.push_back(part.text);
    }

    LineError error() const
    {
        LineError result;
        if (m_furthest < m_tokens.size())
            result.word = m_tokens[m_furthest].separator ? ";" : text::oneLine(m_tokens[m_furthest].word.text);
        if (m_furthest > 0 && m_tokens[m_furthest - 1].word.text.starts_with('-'))
            result.option = m_tokens[m_furthest - 1].word.text;
        for (const std::string_view part : m_expected)
            result.expected.append(result.expected.empty() ? "" : " or ").append(part);
        result.expected += ", as in the lines that moatkeeper makes";
        return result;
    }

    std::span<const Token> m_tokens;
    bool m_explaining = false; // most lines are fine and need no explanation
    std::size_t m_furthest = 0;
    std::vector<std::string_view> m_expected;
};

// As the row has it; nothing when a name made of it could not be that of a chain.
std::optional<std::string> portOf(const std::optional<InterfaceMatch>& match)
{
    if (!match)
        return "+";
    if (match->negated)
        return std::nullopt;
    return match->name + (match->prefix ? "+" : "");
}

bool hasCriteria(std::string_view criteria, const std::optional<EthertypeMatch>& protocol)
{
    const auto either = [&](std::string_view one, std::string_view other) {
        return criteria == one || criteria == other;
    };
    if (!protocol)
        return !either("IPv4", "ipv4") && !either("IPv6", "ipv6") && !either("VLAN", "vlan");
    switch (protocol->number) {
    case 0x0800:
        return either("IPv4", "ipv4");
    case 0x86dd:
        return either("IPv6", "ipv6");
    case 0x8100:
        return either("VLAN", "vlan");
    default:
        return false;
    }
}

// Whether the chain of a filter with this jump has this name.
bool isNamedAfter(std::string_view chain, const Rule& jump)
{
    if (chain.starts_with("FilterID"))
        return true;
    const auto first = portOf(jump.in);
    const auto second = portOf(jump.out);
    if (!first || !second)
        return false;
    chain.remove_suffix(std::string_view("blacklist").size()); // whitelist is as long
    const std::string ports = *first + *second;
    // Where the priority ends is not to be seen when the port begins with a digit.
    for (std::size_t digits = 1; digits < chain.size() && isDigit(chain[digits - 1]); ++digits) {
        const std::string_view rest = chain.substr(digits);
        if (rest.starts_with(ports) && hasCriteria(rest.substr(ports.size()), jump.ethertype))
            return true;
    }
    return false;
}

std::optional<LineError> whyNotTogether(const Command& first, const Command& second)
{
    if (first.kind != CommandKind::Insert && first.kind != CommandKind::Delete) {
        if (first.chain == second.chain)
            return std::nullopt;
        return LineError{second.chain, "", "the chain of the command before it, " + first.chain};
    }
    Rule mirrored = second.rule;
    std::swap(mirrored.in, mirrored.out);
    if (first.rule != mirrored)
        return LineError{second.rule.target, "", "the jump before it, in the other direction"};
    if (!isNamedAfter(first.rule.target, first.rule))
        return LineError{first.rule.target, "-j", "the chain of a filter between these ports, named after them"};
    return std::nullopt;
}

} // namespace

std::span<const Form> allowedForms()
{
    return forms;
}

std::optional<LineError> whyNotAllowed(std::string_view line)
{
    const SplitLine split = splitLine(line);
    if (split.error)
        return split.error;
    std::vector<Token> tokens;
    tokens.reserve(24);
    for (const Words& words : split.commands) {
        if (&words != &split.commands.front())
            tokens.push_back({{}, true});
        for (const Word& word : words) {
            if (&word == &words.front() && word.is("ebtables") && words.size() > 1)
                continue;
            if (&word == &words.front())
                return LineError{text::oneLine(word.text), "", "the command ebtables with its options"};
            tokens.push_back({word, false});
        }
    }
    if (tokens.empty())
        return std::nullopt;
    if (tokens.size() > mostTokens)
        return LineError{text::oneLine(tokens[mostTokens].word.text), "", "a line of at most 60 words"};
    if (auto error = Comparison(tokens).run())
        return error;
    if (split.commands.size() > 1) {
        const ParsedLine parsed = parseLine(line);
        if (parsed.error)
            return parsed.error;
        return whyNotTogether(parsed.commands[0], parsed.commands[1]);
    }
    return std::nullopt;
}

bool isFilterChain(std::string_view name)
{
    constexpr std::size_t longest = 30; // what the handler composes; a longer one becomes FilterID and the number
    if (name.starts_with("FilterID")) {
        name.remove_prefix(std::string_view("FilterID").size());
        if (name.starts_with('-'))
            name.remove_prefix(1);
        return !name.empty() && name.size() <= 10 && std::ranges::all_of(name, isDigit);
    }
    return name.size() <= longest && name.size() > std::string_view("1whitelist").size() && isDigit(name.front()) &&
           (name.ends_with("blacklist") || name.ends_with("whitelist"));
}

} // namespace ebtables
