#include "tests/fuzz/table_guard.hpp"

#include "platform_linux/queue/line_gate.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace
{

using Words = std::vector<std::string>;

const std::array<std::string, 4> userChains{"UserInputRules", "UserInputPolicy", "UserForwardRules",
                                            "UserForwardPolicy"};

// In INPUT and in FORWARD.
const std::array<std::string, 2> ofOthers{"-i p3 -j theirs", "-i p3 -o p3 -j 7p1p2macblacklist"};

bool isUserChain(const std::string& chain)
{
    return std::ranges::find(userChains, chain) != userChains.end();
}

// Words at blanks; a text in quotes is one word with its quotes; `;` is a word.
Words wordsOf(const std::string& text)
{
    Words words;
    std::string word;
    bool quoted = false;
    const auto end = [&] {
        if (!word.empty())
            words.push_back(word);
        word.clear();
    };
    for (const char c : text) {
        if (c == '"')
            quoted = !quoted;
        if (!quoted && (c == ' ' || c == ';')) {
            end();
            if (c == ';')
                words.emplace_back(";");
        } else {
            word += c;
        }
    }
    end();
    return words;
}

std::string after(const Words& words, const std::string& option)
{
    const auto found = std::ranges::find(words, option);
    return found == words.end() || found + 1 == words.end() ? "" : *(found + 1);
}

// Every option that a rule may have, in the only order.
const Words order{"-i",
                  "-o",
                  "-d",
                  "-s",
                  "-p",
                  "--vlan-id",
                  "--vlan-encap",
                  "--ip-source",
                  "--ip6-source",
                  "--ip-destination",
                  "--ip6-destination",
                  "--ip-protocol",
                  "--ip6-protocol",
                  "--ip-destination-port",
                  "--ip6-destination-port",
                  "--log",
                  "--log-prefix",
                  "-j"};

// One command of a line, without `ebtables`.
std::string lookAtOptions(Words words)
{
    if (words.size() < 2)
        return "no command";
    const bool second =
        words.size() > 4 && words[1] == "FORWARD" && std::ranges::find(words, "-o") < std::ranges::find(words, "-i");
    if (second) // the second jump of a filter names its ports the other way round
        std::swap(*std::ranges::find(words, "-o"), *std::ranges::find(words, "-i"));
    std::size_t place = 0;
    for (std::size_t i = 2; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.front() != '-')
            continue;
        const auto found = std::find(order.begin() + static_cast<std::ptrdiff_t>(place), order.end(), word);
        if (found == order.end())
            return "option " + word + " unknown, twice or out of order";
        place = static_cast<std::size_t>(found - order.begin()) + 1;
    }
    return "";
}

} // namespace

TableGuard::TableGuard()
{
    m_others["OUTPUT"] = {"ACCEPT", {"-o p3 -j ACCEPT"}};
    m_others["theirs"] = {"RETURN", {"-s 02:00:00:00:00:55 -j DROP"}};
    m_others["7p1p2macblacklist"] = {"RETURN", {"-i p1 -j DROP"}};
    m_others["FilterID7"] = {"DROP", {"-i p1 -j theirs"}};
    m_chains = m_others;
    m_chains["INPUT"] = {"ACCEPT", {ofOthers[0]}};
    m_chains["FORWARD"] = {"ACCEPT", {ofOthers[1]}};
}

std::string TableGuard::lookAtLine(const std::string& line)
{
    std::vector<Words> commands(1);
    for (const std::string& word : wordsOf(line)) {
        if (word == ";")
            commands.emplace_back();
        else
            commands.back().push_back(word);
    }
    const bool pair = commands.size() > 1;
    if (pair && commands.back().empty())
        commands.pop_back();
    if (pair && commands.size() != 2)
        return "not two commands";
    for (Words& words : commands) {
        if (words.empty() && !pair)
            return "";
        if (words.size() < 2 || words.front() != "ebtables")
            return "not ebtables";
        words.erase(words.begin());
        if (const std::string wrong = lookAtOptions(words); !wrong.empty())
            return wrong;
    }
    const std::string& kind = commands.front().front();
    const bool needsTwo = kind == "-I" || (kind == "-D" && commands.front().size() > 4) ||
                          (!isUserChain(commands.front()[1]) && (kind == "-N" || kind == "-F" || kind == "-X"));
    return needsTwo == pair ? "" : "commands that belong alone or together";
}

std::string TableGuard::carryOut(const std::string& command)
{
    const Words words = wordsOf(command);
    if (words.size() < 2)
        return "no command";
    const std::string& kind = words[0];
    const std::string& name = words[1];
    std::size_t options = 2;
    if (kind == "-N") {
        if (!isUserChain(name))
            m_made.insert(name);
        m_chains[name].policy = "ACCEPT";
        return lookAtTables();
    }
    const auto chain = m_chains.find(name);
    if (chain == m_chains.end()) // the kernel would refuse it; nobody may even try with a chain that is not ours
        return isUserChain(name) ? "" : "chain " + name + " was never made";
    if (kind == "-I" && words.size() > 2 && words[2].front() != '-') {
        if (words[2] != "1")
            return "an insertion elsewhere than at the front";
        ++options;
    }
    std::string rule;
    for (std::size_t i = options; i < words.size(); ++i)
        rule += (rule.empty() ? "" : " ") + words[i];
    std::vector<std::string>& rules = chain->second.rules;
    if (kind == "-A")
        rules.push_back(rule);
    else if (kind == "-I")
        rules.insert(rules.begin(), rule);
    else if (kind == "-D")
        std::erase(rules, rule);
    else if (kind == "-F")
        rules.clear();
    else if (kind == "-P")
        chain->second.policy = words[2];
    else if (kind == "-X")
        m_chains.erase(chain);
    else
        return "an unknown command";
    const std::string wrong = lookAtTables();
    if (kind == "-X")
        m_made.erase(name);
    // Each rule was looked at when it came: not too many of them need to stay.
    if (const auto full = m_chains.find(name); full != m_chains.end() && full->second.rules.size() > 20)
        std::erase_if(full->second.rules,
                      [](const std::string& old) { return old != ofOthers[0] && old != ofOthers[1]; });
    return wrong;
}

std::string TableGuard::lookAtTables() const
{
    for (const auto& [name, chain] : m_others) {
        const auto now = m_chains.find(name);
        if (now == m_chains.end() || now->second != chain)
            return "chain " + name + " of somebody else is another one";
    }
    for (const auto& [name, chain] : m_chains) {
        if (m_others.contains(name))
            continue;
        const bool isInput = name == "INPUT";
        const bool isForward = name == "FORWARD";
        const bool isUser = isUserChain(name);
        if (!isInput && !isForward && !isUser && !m_made.contains(name))
            return "a chain " + name;
        if (chain.policy != "ACCEPT" && chain.policy != "DROP" && (isInput || isForward || chain.policy != "RETURN"))
            return "policy " + chain.policy + " of " + name;
        if (isUser && chain.policy == "DROP")
            return "policy DROP of " + name;
        unsigned foreign = 0;
        for (const std::string& rule : chain.rules) {
            const Words words = wordsOf(rule);
            const std::string target = after(words, "-j");
            if (isInput || isForward) {
                if (rule == ofOthers[isInput ? 0 : 1])
                    ++foreign;
                else if (words.size() == 2
                             ? !target.starts_with(isInput ? "UserInput" : "UserForward") || !isUserChain(target)
                             : isInput || m_others.contains(target) || isUserChain(target))
                    return "rule \"" + rule + "\" in " + name;
            } else if (target != "DROP" && target != (isUser ? "ACCEPT" : "RETURN")) {
                return "target " + target + " in " + name;
            }
        }
        if ((isInput || isForward) && foreign != 1)
            return "the rule of somebody else in " + name + " is gone";
    }
    return "";
}

struct GuardedGate::State {
    zol::cfg::Gate gate{false};
    ebtables::OwnChains own;
    TableGuard guard;
};

GuardedGate::GuardedGate() : m_state(new State) {}

GuardedGate::~GuardedGate()
{
    delete m_state;
}

void GuardedGate::take(const std::string& line)
{
    const auto check = [&](const std::string& wrong) {
        if (wrong.empty())
            return;
        std::fprintf(stderr, "let through: %s\n%s\n", line.c_str(), wrong.c_str());
        std::abort();
    };
    const ebtables::ParsedLine parsed = m_state->gate.take(line);
    if (parsed.error)
        return;
    ++accepted;
    check(TableGuard::lookAtLine(line));
    for (const ebtables::Command& command : parsed.commands) {
        const bool made = command.kind == ebtables::CommandKind::NewChain;
        if (!m_state->own.mayCarryOut(command) || (made && m_state->guard.has(command.chain)))
            continue;
        ++carriedOut;
        check(m_state->guard.carryOut(toText(command)));
        m_state->own.note(command);
    }
    if (accepted % 7 == 0) // a commit is complete
        m_state->gate.settle(m_state->own);
}
