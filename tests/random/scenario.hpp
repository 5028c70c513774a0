// Random table states, drawn from sets so small that rows collide: equal priorities and ids, equal chain names,
// invalid modes and targets, rules of filters that are not there.
#pragma once

#include "platform_fake/memory_tables.hpp"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace randomtest
{

struct RuleRow {
    int id = 0, enabled = 1, prio = 1;
    std::string inInterface, outInterface, sourceMac;
    int vlanId = -1;
    std::string ethertype, sourceAddress, protocol;
    int port = 0;
    std::string target;
    int logging = 0;
    bool operator==(const RuleRow&) const = default;
};

struct PolicyRow // of both policy tables; outInterface is not used by the input table
{
    int id = 0, enabled = 1;
    std::string inInterface, outInterface, policy;
    int logging = 0;
    bool operator==(const PolicyRow&) const = default;
};

struct FilterRow {
    int id = 0, enabled = 1, prio = 1;
    std::string inInterface, outInterface, criteria, mode;
    bool operator==(const FilterRow&) const = default;
};

struct FilterRuleRow {
    int id = 0, enabled = 1, filterId = 0;
    std::string match;
    bool operator==(const FilterRuleRow&) const = default;
};

struct GlobalRow {
    std::string input, forward;
    bool operator==(const GlobalRow&) const = default;
};

// The content of all six tables.
struct Tables {
    std::vector<GlobalRow> global;
    std::vector<RuleRow> rules;
    std::vector<PolicyRow> inputPolicies, forwardPolicies;
    std::vector<FilterRow> filters;
    std::vector<FilterRuleRow> filterRules;

    void writeTo(fake::MemoryTables& tables) const;
};

class Generator
{
public:
    explicit Generator(std::uint64_t seed) : m_engine(seed) {}

    // A number from 0 to count - 1.
    int below(int count) { return static_cast<int>(m_engine() % static_cast<unsigned>(count)); }
    bool chance(int percent) { return below(100) < percent; }

    // Changes one table: a row added, removed, replaced or moved, or nothing at all. Returns the table's name.
    std::string change(Tables& tables);

private:
    RuleRow rule();
    PolicyRow policy();
    FilterRow filter();
    FilterRuleRow filterRule();
    GlobalRow global();
    template <typename Row, typename Make>
    void changeRows(std::vector<Row>& rows, int most, Make make);
    template <typename T>
    const T& pick(const std::vector<T>& values)
    {
        return values[static_cast<std::size_t>(below(static_cast<int>(values.size())))];
    }

    std::mt19937_64 m_engine;
};

} // namespace randomtest
