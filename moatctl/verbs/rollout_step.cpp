#include "moatctl/verbs/rollout_step.hpp"

#include "moatctl/check/change.hpp"
#include "moatctl/command_line/await_in_force.hpp"
#include "moatctl/tables/difference.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/tables/server.hpp"
#include "moatctl/tables/trial.hpp"
#include "ovsdb/client.hpp"
#include "schema/device.hpp"

#include <algorithm>
#include <thread>
#include <utility>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds glance{250};
constexpr milliseconds pauseBetweenAttempts{100};
constexpr std::size_t namedLosses = 5;

void chooseServer(Program& own, const std::string& name)
{
    const std::size_t at = name.find('@');
    own.server.database = name.substr(0, at);
    if (at == std::string::npos)
        return;
    try {
        own.endpoints = endpoint::parseEndpoints(name.substr(at + 1));
    } catch (const endpoint::Mistake& mistake) {
        throw Failure(ExitStatus::BadInput, "--step " + inQuotes(name) + ": " + mistake.what());
    }
}

Program silent(const Program& program, std::ostream& messages, const std::string& name)
{
    Program own{.in = program.in, .out = messages, .err = messages, .verbs = program.verbs};
    own.server = program.server;
    own.endpoints = program.endpoints;
    own.access = program.access;
    chooseServer(own, name);
    own.force = program.force;
    own.quorum = program.quorum;
    own.whileWaiting = program.whileWaiting;
    return own;
}

std::string inList(const std::vector<std::string>& texts)
{
    std::string list;
    for (std::size_t i = 0; i < std::min(texts.size(), namedLosses); ++i)
        list += (i == 0 ? "" : "; ") + texts[i];
    if (texts.size() > namedLosses)
        list += "; and " + std::to_string(texts.size() - namedLosses) + " devices more";
    return list;
}

// Errors end it, unless they are to be stored all the same; the interfaces are another machine's.
std::vector<std::string> check(const Program& program, const Editor& editor)
{
    std::vector<std::string> warnings;
    std::vector<std::string> errors;
    for (const Problem& problem : checkChange(editor.before, editor.configuration, {}))
        (problem.severity == Severity::Error ? errors : warnings).push_back(toText(problem));
    if (errors.empty() || program.force)
        return warnings;
    throw Failure(ExitStatus::BadInput,
                  errors.front() + (errors.size() > 1 ? "; and " + std::to_string(errors.size() - 1) +
                                                            (errors.size() > 2 ? " errors more" : " error more")
                                                      : std::string()));
}

} // namespace

RolloutStep::RolloutStep(const std::string& name, const Program& program)
    : m_name(name), m_program(silent(program, m_messages, name))
{
}

void RolloutStep::connect()
{
    m_client.reset(new ovsdb::Client(m_program.connect()));
    m_client->follow(m_client->tableNames());
}

// Again on a new connection when the server is lost, as long as the time-out is not over.
template <typename Operation>
void RolloutStep::persist(const Operation& operation)
{
    const Clock::time_point end = Clock::now() + m_program.server.timeout;
    for (;;) {
        try {
            if (!m_client)
                connect();
            return operation();
        } catch (const ovsdb::Error&) {
            if (Clock::now() >= end)
                throw;
        } catch (const Failure& failure) { // an answer that was lost
            if (failure.status() != ExitStatus::Server || Clock::now() >= end)
                throw;
        }
        m_client.reset();
        std::this_thread::sleep_for(pauseBetweenAttempts);
    }
}

std::vector<std::string> RolloutStep::preview(const Edit& edit)
{
    connect();
    const ovsdb::TableCache& state = m_client->followed();
    if (const auto waits = schema::trialOf(state))
        throw Failure(ExitStatus::Conflict, toText(*waits) + " (moatctl confirm, or moatctl cancel)");
    const Configuration before = toConfiguration(state);
    Editor editor(before);
    editor.force = m_program.force;
    editor.elsewhere = true;
    edit(editor);
    std::vector<std::string> lines = check(m_program, editor);
    for (const Change& change : difference(before, editor.configuration))
        lines.push_back(toText(change));
    return lines;
}

bool RolloutStep::store(const Edit& edit, Occasion occasion, std::int32_t seconds)
{
    connect();
    occasion.trial = seconds;
    m_occasion = occasion;
    m_state = State::Unknown; // should the connection be lost before the answer
    try {
        m_stored = applyEdit(
            *m_client,
            [&](Editor& editor) {
                editor.force = m_program.force;
                editor.elsewhere = true;
                edit(editor);
                editor.flawless = check(m_program, editor).empty();
            },
            occasion);
    } catch (const Failure& failure) {
        if (failure.status() != ExitStatus::Server)
            m_state = State::Unchanged;
        throw;
    }
    if (!m_stored.changed) {
        m_state = State::Unchanged;
        return false;
    }
    m_state = State::OnTrial;
    const Clock::time_point end = Clock::now() + m_program.server.timeout;
    while (!ownTrial() && m_client->awaitChange(end)) {
    }
    const auto trial = ownTrial();
    if (!trial)
        lostTrial();
    m_change = trial->change;
    return true;
}

// The trial that is this step's change, as far as the copy of the tables tells.
std::optional<schema::Trial> RolloutStep::ownTrial() const
{
    auto trial = schema::trialOf(m_client->followed());
    const bool own = trial && (m_change != 0 ? trial->change == m_change
                                             : trial->user == m_occasion.user && trial->verb == m_occasion.verb);
    return own ? trial : std::nullopt;
}

void RolloutStep::lostTrial()
{
    throw Failure(ExitStatus::Conflict,
                  "the change does not wait any more: somebody else has confirmed it or taken it back");
}

Reached RolloutStep::await()
{
    awaitInForce(m_program, *m_client, m_stored);
    m_client.reset(); // may have been lost meanwhile
    Reached result;
    persist([&] {
        result = reached(m_client->followed(), *m_stored.number);
        m_inForce = standingDevices(m_client->followed(), std::chrono::system_clock::now());
    });
    return result;
}

void RolloutStep::settle(milliseconds time)
{
    const Clock::time_point end = Clock::now() + time;
    do {
        persist([&] {
            if (!ownTrial())
                lostTrial();
            const std::vector<StandingDevice> now =
                standingDevices(m_client->followed(), std::chrono::system_clock::now());
            if (const auto losses = lossesSince(m_inForce, now, *m_stored.number); !losses.empty())
                throw Failure(ExitStatus::NotInForce, inList(losses));
            if (m_program.whileWaiting)
                m_program.whileWaiting();
            m_client->awaitChange(std::min<Clock::time_point>(end, Clock::now() + glance));
        });
    } while (Clock::now() < end);
}

void RolloutStep::confirm()
{
    persist([this] {
        if (const auto trial = ownTrial())
            confirmTrial(*m_client, *trial);
        else if (wasUndone()) // not by an answer of the server that was lost
            lostTrial();
    });
    m_state = State::Confirmed;
}

bool RolloutStep::wasUndone()
{
    ovsdb::Client client = m_program.connectToHistory();
    const std::vector<HistoryEntry> entries = readHistory(client);
    return std::ranges::find(entries, m_change, &HistoryEntry::undoes) != entries.end();
}

std::string RolloutStep::takeBack(Occasion occasion)
{
    m_program.whileWaiting = {};
    m_client.reset(); // what it follows may be old
    std::string done;
    persist([&] {
        if (m_state == State::Confirmed)
            done = undo(occasion);
        else
            done = endTrial(occasion);
    });
    m_state = State::Unchanged;
    return done;
}

std::string RolloutStep::endTrial(const Occasion& occasion)
{
    if (const auto trial = ownTrial()) {
        m_change = trial->change;
        awaitBack(cancelTrial(*m_client, *trial, occasion));
        return "taken back";
    }
    if (m_change == 0)
        return "it was not stored";
    return wasUndone() ? "it has gone back already" : undo(occasion);
}

std::string RolloutStep::undo(const Occasion& occasion)
{
    if (wasUndone())
        return "it has gone back already";
    ovsdb::Client history = m_program.connectToHistory();
    const std::vector<HistoryEntry> entries = readHistory(history);
    const auto entry = std::ranges::find(entries, m_change, &HistoryEntry::number);
    if (entry == entries.end())
        throw Failure(ExitStatus::Conflict, "change " + std::to_string(m_change) + " is not in the history any more");
    Occasion own = occasion;
    own.undoes = m_change;
    own.trial = 0;
    awaitBack(applyEdit(
        *m_client, [&entry](Editor& editor) { moatctl::takeBack(*entry, editor); }, own));
    return "undone";
}

// Devices that cannot change their rules now will do so later: nothing more can be done from here.
void RolloutStep::awaitBack(const Stored& stored)
{
    try {
        awaitInForce(m_program, *m_client, stored);
    } catch (const Failure& failure) {
        m_messages << "went back, but " << failure.what() << '\n';
    }
}

std::vector<std::string> RolloutStep::messages()
{
    std::vector<std::string> lines;
    std::istringstream text(m_messages.str());
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    m_messages.str({});
    return lines;
}

} // namespace moatctl
