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
#include "schema/history.hpp"

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
    const Clock::time_point end = Clock::now() + m_program.server.timeout;
    while (!isUpToDate()) {
        if (!m_client->awaitChange(end))
            throw Failure(ExitStatus::Server, "the server does not have the change yet");
    }
}

// Another server than the one that took the change, or a relay of one, may not have heard of it yet.
bool RolloutStep::isUpToDate() const
{
    if (!m_stored.number)
        return true;
    const auto number = changeNumberOf(m_client->followed());
    return number && schema::includes(*number, *m_stored.number);
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
    m_client.reset(); // the preview's may be lost by now
    persist([] {});
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
    persist([this] { awaitTrial(); });
    if (m_change == 0)
        lostTrial();
    return true;
}

void RolloutStep::awaitTrial()
{
    const Clock::time_point end = Clock::now() + m_program.server.timeout;
    while (!ownTrial() && m_client->awaitChange(end)) {
    }
    if (const auto trial = ownTrial())
        m_change = trial->change;
}

// Of the trial, which somebody has ended: the copy of the tables may not say so yet.
void RolloutStep::awaitEnd()
{
    const Clock::time_point end = Clock::now() + m_program.server.timeout;
    while (ownTrial() && m_client->awaitChange(end)) {
    }
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
        const Clock::time_point end = Clock::now() + m_program.server.timeout;
        do
            result = reached(m_client->followed(), *m_stored.number);
        while (result.reached < m_program.quorum.of(result.devices) && m_client->awaitChange(end));
        m_watch = {standingDevices(m_client->followed(), std::chrono::system_clock::now()), *m_stored.number};
    });
    if (result.reached < m_program.quorum.of(result.devices))
        throw Failure(ExitStatus::NotInForce, "in force on " + std::to_string(result.reached) + " of " +
                                                  std::to_string(result.devices) + " devices only");
    return result;
}

void RolloutStep::settle(milliseconds time)
{
    const Clock::time_point end = Clock::now() + time;
    const Clock::time_point last = end + m_program.server.timeout;
    const auto isOver = [&] { return Clock::now() >= (m_watch.away().empty() ? end : last); };
    do {
        persist([&] {
            if (!ownTrial())
                lostTrial();
            const auto losses = m_watch.look(standingDevices(m_client->followed(), std::chrono::system_clock::now()));
            if (!losses.empty())
                throw Failure(ExitStatus::NotInForce, inList(losses));
            if (m_program.whileWaiting)
                m_program.whileWaiting();
            if (!isOver())
                m_client->awaitChange(
                    std::min<Clock::time_point>(Clock::now() < end ? end : last, Clock::now() + glance));
        });
    } while (!isOver());
    if (!m_watch.away().empty())
        throw Failure(ExitStatus::NotInForce, inList(m_watch.away()));
}

void RolloutStep::confirm()
{
    persist([this] {
        if (const auto trial = ownTrial()) {
            m_change = trial->change;
            try {
                return confirmTrial(*m_client, *trial);
            } catch (const Failure& failure) {
                if (failure.status() != ExitStatus::Conflict)
                    throw;
                awaitEnd();
            }
        }
        if (m_change == 0 || wasUndone()) // else by an attempt whose answer was lost
            lostTrial();
    });
    m_state = State::Confirmed;
}

// At least as far as the copy of the tables is: another server, or relay, may not be.
std::vector<HistoryEntry> RolloutStep::history()
{
    ovsdb::Client client = m_program.connectToHistory();
    std::vector<HistoryEntry> entries = readHistory(client);
    for (const ovsdb::Row& row : m_client->followed().rows(schema::historyTable)) {
        if (entries.empty() || entries.front().number < row.values.integer(0))
            throw Failure(ExitStatus::Server, "the server does not have the history yet");
    }
    return entries;
}

bool RolloutStep::wasUndone()
{
    const std::vector<HistoryEntry> entries = history();
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
    if (m_state == State::Unknown)
        awaitTrial();
    if (const auto trial = ownTrial()) {
        m_change = trial->change;
        try {
            awaitBack(cancelTrial(*m_client, *trial, occasion));
            return "taken back";
        } catch (const Failure& failure) {
            if (failure.status() != ExitStatus::Conflict)
                throw;
            awaitEnd();
        }
    }
    if (m_change == 0)
        return "it was not stored; should it be yet, it goes back by itself";
    return wasUndone() ? "it has gone back already" : undo(occasion);
}

std::string RolloutStep::undo(const Occasion& occasion)
{
    if (wasUndone())
        return "it has gone back already";
    const std::vector<HistoryEntry> entries = history();
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
        const std::string text = failure.what();
        constexpr std::string_view beginning = "stored, but ";
        m_messages << "went back, but " << (text.starts_with(beginning) ? text.substr(beginning.size()) : text) << '\n';
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
