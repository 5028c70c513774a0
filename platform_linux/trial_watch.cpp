#include "platform_linux/trial_watch.hpp"

#include "ovsdb/error.hpp"
#include "schema/history.hpp"
#include "text/one_line.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <utility>

namespace zol::cfg
{

namespace
{

using std::chrono::milliseconds;

constexpr const char* trialLabel = "trial";
constexpr std::size_t longestVerb = 900;
constexpr std::size_t longestHost = 60;

std::string nameOf(const schema::Trial& trial)
{
    return "change " + std::to_string(trial.change) + " (" + text::oneLine(trial.verb) + ")";
}

} // namespace

TrialWatch::TrialWatch(std::string hostName, const ovsdb::TableCache& tables,
                       tessera::net::EventDispatcher::State& dispatcher, ZOL_Sysloglevel_Module logModule, Send send,
                       TakeBack takeBack, std::function<schema::Clocks()> clocks)
    : m_hostName(text::oneLine(hostName, longestHost)),
      m_tables(tables),
      m_dispatcher(dispatcher),
      m_logModule(logModule),
      m_send(std::move(send)),
      m_takeBack(std::move(takeBack)),
      m_clocks(std::move(clocks))
{
}

TrialWatch::~TrialWatch()
{
    m_dispatcher.stopTimer(m_timer);
    m_dispatcher.stopTimer(m_graceTimer);
}

void TrialWatch::update(std::optional<schema::Trial> trial, bool connected)
{
    const bool known = trial && m_trial && trial->uuid == m_trial->uuid;
    if (known && !connected)
        return;
    m_dispatcher.stopTimer(std::exchange(m_timer, 0));
    m_trial = std::move(trial);
    if (!known)
        forgetTakenBack();
    if (!m_trial)
        return;
    if (!known) {
        m_told = false;
        m_withHistory = true;
        const schema::Clocks now = m_clocks();
        // Seen as it comes, its time begins now, whatever the clock of the machine says that it comes from.
        const bool begins = !connected && m_trial->boot != now.boot;
        const milliseconds left =
            begins ? milliseconds(std::chrono::seconds(m_trial->seconds)) : schema::remaining(*m_trial, now);
        m_end = Clock::now() + left;
        ZOL_Sysloglevel_info(m_logModule, trialLabel, 10,
                             nameOf(*m_trial) + " waits to be confirmed, for " + std::to_string(left.count()) + " ms");
    }
    schedule(m_end);
}

void TrialWatch::schedule(Clock::time_point when)
{
    const auto left = std::max(std::chrono::ceil<milliseconds>(when - Clock::now()), milliseconds(0));
    m_timer = m_dispatcher.startTimer(left, [this] {
        m_timer = 0;
        putBack();
    });
}

void TrialWatch::putBack()
{
    if (!std::exchange(m_told, true))
        ZOL_Sysloglevel_warning(m_logModule, trialLabel, 20,
                                nameOf(*m_trial) + " was not confirmed in time: what was before is put back");
    std::optional<ovsdb::ColumnValues> entry;
    if (m_withHistory)
        entry = {{std::string(schema::history::time), tessera::Value(text::utcTime(m_clocks().wall))},
                 {std::string(schema::history::user), tessera::Value(std::string("moatkeeper"))},
                 {std::string(schema::history::host), tessera::Value(m_hostName)},
                 {std::string(schema::history::verb),
                  tessera::Value("not confirmed in time: " + text::oneLine(m_trial->verb, longestVerb))}};
    try {
        m_send(schema::putBack(*m_trial, m_tables, entry),
               [this, uuid = m_trial->uuid](const std::optional<std::string>& error) {
                   if (m_trial && m_trial->uuid == uuid)
                       answered(error);
               });
        if (!m_takenBack && m_graceTimer == 0)
            m_graceTimer = m_dispatcher.startTimer(grace, [this] {
                m_graceTimer = 0;
                takeBack();
            });
    } catch (const ovsdb::Error& error) {
        ZOL_Sysloglevel_error(m_logModule, trialLabel, 30, nameOf(*m_trial) + " cannot be put back: " + error.what());
    }
}

// Done, or somebody else was faster: the row's end tells.
void TrialWatch::answered(const std::optional<std::string>& error)
{
    if (!error || error->starts_with("timed out"))
        return;
    if (error->starts_with("permission error"))
        return takeBack(); // somebody else must put it back there
    if (std::exchange(m_withHistory, false))
        ZOL_Sysloglevel_error(m_logModule, trialLabel, 40,
                              nameOf(*m_trial) + " was not put back, trying again: " + text::oneLine(*error));
    schedule(Clock::now() + pause);
}

void TrialWatch::takeBack()
{
    m_dispatcher.stopTimer(std::exchange(m_graceTimer, 0));
    if (!m_trial || std::exchange(m_takenBack, true))
        return;
    ZOL_Sysloglevel_warning(m_logModule, trialLabel, 50,
                            nameOf(*m_trial) + " is taken back here until the server has it put back or confirmed");
    m_takeBack(&*m_trial);
}

void TrialWatch::forgetTakenBack()
{
    m_dispatcher.stopTimer(std::exchange(m_graceTimer, 0));
    if (std::exchange(m_takenBack, false))
        m_takeBack(nullptr);
}

} // namespace zol::cfg
