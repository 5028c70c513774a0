// One step of a rollout: a change in one database, from its making until it stays, or goes back.
#pragma once

#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/device_state.hpp"
#include "moatctl/tables/edit.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/occasion.hpp"
#include "schema/server/trial.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace moatctl
{

// The change is a trial until confirm(): whatever becomes of this program, it goes back by itself. Errors are Failures
// and those of ovsdb::Client.
class RolloutStep
{
public:
    using Edit = std::function<void(Editor&)>;

    // name: "DATABASE", "DATABASE@SERVER" or "@SERVER"; what it leaves out is the program's. Throws Failure(BadInput).
    RolloutStep(const std::string& name, const Program& program);

    const std::string& name() const { return m_name; }

    // What the edit would change now, a line for each row, and the warnings of a check before them. Throws Failure when
    // it has errors, or another change waits to be confirmed.
    std::vector<std::string> preview(const Edit& edit);

    // False: there is nothing to change. The change goes back after so many seconds.
    bool store(const Edit& edit, Occasion occasion, std::int32_t seconds);
    std::int32_t change() const { return m_change; }

    // What awaitInForce throws, and Failure(NotInForce). Returns how many of the devices that count have it.
    Reached await();

    // For that time every device that has it must keep it; for those whose daemon was stopped or started anew it ends
    // when they have it again, the time-out later at most. Throws Failure(NotInForce) with the first that do not.
    void settle(std::chrono::milliseconds time);

    void confirm();

    // Whether something is, or may be, left of the change.
    bool isChanged() const { return m_state != State::Unchanged; }

    // Undoes the change, or ends the trial, and waits for that to be in force; what others have done meanwhile is not
    // touched. Returns in words what was done.
    std::string takeBack(Occasion occasion);

    // Lines for people that came up since the last call.
    std::vector<std::string> messages();

private:
    enum class State { Unchanged, Unknown, OnTrial, Confirmed };

    void connect();
    bool isUpToDate() const;
    template <typename Operation>
    void persist(const Operation& operation);
    std::optional<schema::Trial> ownTrial() const;
    void awaitTrial();
    void awaitEnd();
    std::vector<HistoryEntry> history();
    bool wasUndone();
    std::string endTrial(const Occasion& occasion);
    std::string undo(const Occasion& occasion);
    void awaitBack(const Stored& stored);
    [[noreturn]] void lostTrial();

    const std::string m_name;
    std::ostringstream m_messages;
    Program m_program;
    std::unique_ptr<ovsdb::Client> m_client;
    State m_state = State::Unchanged;
    std::int32_t m_change = 0; // of the history; 0: not known
    Occasion m_occasion;       // of the change
    Stored m_stored;
    DeviceWatch m_watch; // of the devices that had it when the wait was over
};

} // namespace moatctl
