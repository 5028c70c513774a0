#include "tests/random/bridge_model.hpp"

#include <algorithm>
#include <set>

namespace randomtest
{

namespace
{

bool isBuiltIn(const std::string& chain)
{
    return chain == "INPUT" || chain == "FORWARD" || chain == "OUTPUT";
}

std::string join(std::vector<std::string>::const_iterator begin, std::vector<std::string>::const_iterator end)
{
    std::string text;
    for (auto word = begin; word != end; ++word)
        text += (text.empty() ? "" : " ") + *word;
    return text;
}

// The word behind an option, "" when the option is not there.
std::string operand(const std::vector<std::string>& words, const std::string& option)
{
    const auto found = std::find(words.begin(), words.end(), option);
    return found != words.end() && found + 1 != words.end() ? *(found + 1) : "";
}

bool consistsOf(const std::string& text, const char* characters)
{
    return text.find_first_not_of(characters) == std::string::npos;
}

bool isMac(const std::string& text)
{
    return text.size() == 17 && std::count(text.begin(), text.end(), ':') == 5;
}

// The operands that are checked by kind, and the port that is refused without a protocol that has ports.
bool optionsFit(const std::vector<std::string>& words)
{
    const std::string mac = operand(words, "-s");
    const std::string vlanId = operand(words, "--vlan-id");
    const std::string ip6 = operand(words, "--ip6-source");
    return (mac.empty() || isMac(mac)) && consistsOf(vlanId, "0123456789") &&
           consistsOf(operand(words, "--ip-source"), "0123456789./") &&
           (ip6.empty() || (ip6.find(':') != std::string::npos && !isMac(ip6))) &&
           (operand(words, "--ip-destination-port").empty() || !operand(words, "--ip-protocol").empty()) &&
           (operand(words, "--ip6-destination-port").empty() || !operand(words, "--ip6-protocol").empty());
}

} // namespace

std::vector<std::vector<std::string>> splitLine(const std::string& line)
{
    std::vector<std::vector<std::string>> commands(1);
    std::string word;
    bool inQuotes = false;
    const auto endWord = [&] {
        if (!word.empty())
            commands.back().push_back(word);
        word.clear();
    };
    for (const char character : line) {
        if (character == '"')
            inQuotes = !inQuotes;
        if (!inQuotes && (character == ' ' || character == ';')) {
            endWord();
            if (character == ';')
                commands.emplace_back();
        } else {
            word += character;
        }
    }
    endWord();
    std::erase_if(commands, [](const auto& command) { return command.empty(); });
    return commands;
}

BridgeModel::BridgeModel() : m_chains{{"INPUT", {}}, {"FORWARD", {}}, {"OUTPUT", {}}} {}

int BridgeModel::apply(const std::string& line)
{
    int refused = 0;
    for (const std::vector<std::string>& words : splitLine(line))
        refused += carryOut(words) ? 0 : 1;
    return refused;
}

bool BridgeModel::isReferenced(const std::string& chain) const
{
    return std::any_of(m_chains.begin(), m_chains.end(), [&](const auto& entry) {
        return std::any_of(entry.second.rules.begin(), entry.second.rules.end(),
                           [&](const std::string& rule) { return rule.ends_with("-j " + chain); });
    });
}

bool BridgeModel::carryOut(const std::vector<std::string>& words)
{
    if (words.size() < 3 || words[0] != "ebtables")
        return false;
    const std::string& command = words[1];
    const std::string& name = words[2];
    if (command == "-N") {
        // The tool takes a leading '-' for an option, and names of at most 31 characters.
        if (words.size() != 3 || name.starts_with('-') || name.size() > 31)
            return false;
        return m_chains.try_emplace(name).second;
    }
    const auto found = m_chains.find(name);
    if (found == m_chains.end())
        return false;
    Chain& chain = found->second;

    if (command == "-P") {
        static const std::set<std::string> policies = {"ACCEPT", "DROP", "RETURN"};
        if (words.size() != 4 || !policies.contains(words[3]) || (words[3] == "RETURN" && isBuiltIn(name)))
            return false;
        chain.policy = words[3];
        return true;
    }
    if (command == "-F") {
        chain.rules.clear();
        return words.size() == 3;
    }
    if (command == "-X") {
        if (words.size() != 3 || isBuiltIn(name) || isReferenced(name))
            return false;
        m_chains.erase(found);
        return true;
    }
    if (command == "-D") {
        const auto rule = std::find(chain.rules.begin(), chain.rules.end(), join(words.begin() + 3, words.end()));
        if (rule == chain.rules.end())
            return false;
        chain.rules.erase(rule);
        return true;
    }
    if (command != "-A" && command != "-I")
        return false;
    const bool insert = command == "-I"; // always at position 1
    if (insert && (words.size() < 4 || words[3] != "1"))
        return false;
    const std::string target = operand(words, "-j");
    if (target.size() > 28) // the tool takes longer names of chains than of targets
        return false;
    static const std::set<std::string> verdicts = {"ACCEPT", "DROP", "RETURN", "CONTINUE"};
    if (!verdicts.contains(target) && (isBuiltIn(target) || !m_chains.contains(target)))
        return false;
    if (!optionsFit(words))
        return false;
    chain.rules.insert(insert ? chain.rules.begin() : chain.rules.end(),
                       join(words.begin() + (insert ? 4 : 3), words.end()));
    return true;
}

std::string BridgeModel::dump() const
{
    std::string text;
    for (const auto& [name, chain] : m_chains) {
        text += ":" + name + " " + chain.policy + "\n";
        for (const std::string& rule : chain.rules)
            text += "-A " + name + " " + rule + "\n";
    }
    return text;
}

} // namespace randomtest
