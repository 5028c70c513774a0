// A judge over the command queue's gate: it keeps the bridge's tables as texts, next to what others have in them, and
// says when a command that was let through does something that no row may do. It shares no code with what it judges.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class TableGuard
{
public:
    TableGuard();

    // A line that was let through, as it was queued: its options in their order, each once.
    // Returns what is wrong with it, or "".
    static std::string lookAtLine(const std::string& line);

    // Whether there is such a chain: making it again fails.
    bool has(const std::string& chain) const { return m_chains.contains(chain); }

    // A command as the tool gets it, "-A INPUT -j UserInputRules". Carries it out.
    // Returns what is wrong with it, or with the tables after it, or "".
    std::string carryOut(const std::string& command);

private:
    struct Chain {
        std::string policy;
        std::vector<std::string> rules;
        bool operator==(const Chain&) const = default;
    };
    std::string lookAtTables() const;

    std::map<std::string, Chain> m_chains;
    std::map<std::string, Chain> m_others; // as it has to stay
    std::set<std::string> m_made;          // chains of filters
};

// Takes lines to the gate, and what passes to the guard, as the queue takes it to the kernel. Ends the process with a
// message when the guard finds something.
class GuardedGate
{
public:
    GuardedGate();
    ~GuardedGate();
    GuardedGate(const GuardedGate&) = delete;
    GuardedGate& operator=(const GuardedGate&) = delete;

    void take(const std::string& line);

    unsigned long accepted = 0;   // lines
    unsigned long carriedOut = 0; // commands

private:
    struct State;
    State* m_state;
};
