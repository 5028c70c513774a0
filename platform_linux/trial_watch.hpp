// Puts a change back that nobody has confirmed in time (schema/trial.hpp): on the server, and, where that does not help
// at once, because the server is cut off from the others of its cluster or grants this device no changes, here.
#pragma once

#include "platform/sysloglevel.h"
#include "platform_linux/event_dispatcher.hpp"
#include "schema/server/trial.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zol::cfg
{

// Keeps the time of a trial by the steady clock from the moment it is seen; what it has been before counts as
// schema::remaining says. A timer runs while a trial waits, and at no other time. Of several devices each sends the
// same transaction, and the server takes the first. Threading: the dispatcher's thread.
class TrialWatch
{
public:
    // Sends a transaction; answered with an error or without, later or never.
    using Send = std::function<void(std::vector<ovsdb::Json> operations,
                                    std::function<void(const std::optional<std::string>& error)> answered)>;
    static constexpr std::chrono::milliseconds pause{250};  // between attempts that the server refuses
    static constexpr std::chrono::milliseconds grace{1000}; // after which the server is not waited for

    // What was before this trial is to be in force here, whatever the server's tables say, until it is called with
    // null: the trial was confirmed or put back.
    using TakeBack = std::function<void(const schema::Trial* trial)>;

    // The dispatcher and the tables, which are the server's, must outlive it. clocks: the machine's.
    TrialWatch(std::string hostName, const ovsdb::TableCache& tables, tessera::net::EventDispatcher::State& dispatcher,
               ZOL_Sysloglevel_Module logModule, Send send, TakeBack takeBack, std::function<schema::Clocks()> clocks);
    ~TrialWatch();
    TrialWatch(const TrialWatch&) = delete;
    TrialWatch& operator=(const TrialWatch&) = delete;

    // What the server has now. connected: it is a new connection; what was sent before may be lost, and nobody can tell
    // for how long the trial has been there.
    void update(std::optional<schema::Trial> trial, bool connected);

private:
    using Clock = std::chrono::steady_clock;

    void schedule(Clock::time_point when);
    void putBack();
    void answered(const std::optional<std::string>& error);
    void takeBack();
    void forgetTakenBack();

    const std::string m_hostName;
    const ovsdb::TableCache& m_tables;
    tessera::net::EventDispatcher::State& m_dispatcher;
    const ZOL_Sysloglevel_Module m_logModule;
    const Send m_send;
    const TakeBack m_takeBack;
    const std::function<schema::Clocks()> m_clocks;

    std::optional<schema::Trial> m_trial;
    Clock::time_point m_end{};
    bool m_told = false;       // the log, that it goes back
    bool m_withHistory = true; // an entry of that is wanted
    bool m_takenBack = false;  // here
    tessera::net::EventDispatcher::State::TimerId m_timer = 0;
    tessera::net::EventDispatcher::State::TimerId m_graceTimer = 0;
};

} // namespace zol::cfg
