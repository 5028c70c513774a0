// A section while it is being made: what its steps need beside themselves.
#pragma once

#include "compiled/known.hpp"
#include "compiled/section.hpp"
#include "ebtables/table.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace compiled
{

// What all sections of a program share.
struct Surroundings {
    const ebtables::Table& table;
    // The map of this name in the program that is in force, or null.
    std::function<const Map*(const std::string&)> mapBefore;
    // Chains that log and decide, by their names.
    Remembered<Chain>& logs;
    bool inPages = true; // long lists of rules as they stand
};

class Making
{
public:
    // The section is made in the memory's place for it. decided: about the ports of its frames.
    Making(const Surroundings& surroundings, SectionMemory& memory, Decided decided)
        : m_with(surroundings), m_memory(memory), m_decided(decided)
    {
    }

    SectionMemory& memory() { return m_memory; }
    const Map* mapBefore(const std::string& name) const { return m_with.mapBefore(name); }

    // The number that it has in the program.
    std::size_t addMap(Map map);
    void addChain(Chain chain) { m_memory.section.chains.push_back(std::move(chain)); }

    // What an element for the rule does. A rule that logs leads to a chain that logs and decides.
    Verdict verdictOf(const ebtables::Rule& rule);
    // The map leads to the same chains that log.
    void addLogs(const std::set<std::string>& logs);

    // Steps for the rules as they stand, or to pages with them that are named for the chain.
    void addWritten(const std::string& chain, KnownRules rules, std::vector<Step>& steps);

private:
    Step written(const Known& rule, std::set<std::string>& targets) const;

    const Surroundings& m_with;
    SectionMemory& m_memory;
    Decided m_decided;
    ebtables::Rule m_lastLogging; // most log as the one before
    std::string m_lastLogs;
};

// The chains that the map leads to.
std::set<std::string> chainsOf(const Map& map);

} // namespace compiled
