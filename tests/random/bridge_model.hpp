// A small model of the kernel's bridge filter table: takes ebtables command lines, refuses what the tool refuses,
// and says what the table then holds. It knows the tool, not the daemon.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace randomtest
{

struct Chain {
    std::string policy = "ACCEPT";
    std::vector<std::string> rules; // as the options of the command that appended or inserted it, one blank between

    bool operator==(const Chain&) const = default;
};

class BridgeModel
{
public:
    BridgeModel();

    // Carries out a line: one command, or several separated by ';'. Each refused command changes nothing and the
    // ones behind it are carried out all the same. Returns the number of refused ones.
    int apply(const std::string& line);

    const std::map<std::string, Chain>& chains() const { return m_chains; }

    // One line per chain and per rule, chains in the order of their names.
    std::string dump() const;

private:
    bool carryOut(const std::vector<std::string>& words);
    bool isReferenced(const std::string& chain) const;

    std::map<std::string, Chain> m_chains;
};

// The commands of a line, each as its words; quotation marks stay part of their word.
std::vector<std::vector<std::string>> splitLine(const std::string& line);

} // namespace randomtest
