#include "platform_linux/device_row.hpp"

#include "schema/device.hpp"
#include "text/one_line.hpp"
#include "text/utc_time.hpp"

#include <algorithm>
#include <utility>

namespace zol::cfg
{

namespace
{

namespace device = schema::device;
using Clock = std::chrono::steady_clock;

constexpr const char* deviceLabel = "device";
constexpr std::size_t longestLine = 1'500; // of a line that is not in force, and of its reason
constexpr std::size_t longestReason = 900;

std::string textOf(const std::vector<NotInForce>& lines)
{
    std::string text;
    for (const NotInForce& each : lines)
        text += text::oneLine(each.line, longestLine) + '\t' + text::oneLine(each.reason, longestReason) + '\n';
    return text;
}

std::int32_t number(std::size_t count)
{
    return static_cast<std::int32_t>(std::min<std::size_t>(count, INT32_MAX));
}

} // namespace

DeviceRow::DeviceRow(const std::string& deviceName, tessera::net::EventDispatcher::State& dispatcher,
                     ZOL_Sysloglevel_Module logModule, SendOperation send, std::chrono::milliseconds afterRefusal)
    : m_name(schema::isDeviceName(deviceName) ? deviceName : ""),
      m_dispatcher(dispatcher),
      m_logModule(logModule),
      m_send(std::move(send)),
      m_afterRefusal(afterRefusal),
      m_started(text::utcTime(std::chrono::system_clock::now()))
{
    if (m_name.empty())
        ZOL_Sysloglevel_warning(m_logModule, deviceLabel, 10,
                                "the host name " + text::inQuotes(deviceName) +
                                    " cannot name a device: expected 1 to 64 letters, digits, '.', '-' and '_'. The "
                                    "server will not be told what is in force here");
}

DeviceRow::~DeviceRow()
{
    m_dispatcher.stopTimer(m_timer);
    m_dispatcher.stopTimer(m_beat);
}

void DeviceRow::setServed(bool served)
{
    m_served = served;
    m_asked = false;
    m_sent.clear();
    writeSoon();
}

void DeviceRow::update(std::int32_t change, const QueueStatus& status, std::int32_t heartbeat)
{
    if (std::exchange(m_heartbeat, heartbeat) != heartbeat)
        m_sent.clear();
    if (status.inStep && m_inForce != change) {
        m_inForce = change;
        m_since = text::utcTime(std::chrono::system_clock::now());
    }
    if (m_inStep != status.inStep) {
        m_inStep = status.inStep;
        m_inStepSince = text::utcTime(std::chrono::system_clock::now());
    }
    const auto add = [this](std::string_view column, auto value) {
        m_wanted.emplace_back(std::string(column), tessera::Value(std::move(value)));
    };
    m_wanted.clear();
    add(device::number, m_inForce.value_or(-1));
    add(device::since, m_since);
    add(device::inStep, status.inStep ? 1 : 0);
    add(device::inStepSince, m_inStepSince);
    add(device::reason, text::oneLine(status.reason, longestReason));
    add(device::rules, number(status.rules));
    add(device::notInForce, textOf(status.notInForce));
    add(device::notInForceCount, number(status.notInForceCount));
    add(device::repaired, status.lastRepair ? text::utcTime(status.lastRepair->when) : std::string());
    add(device::repairedWhat,
        status.lastRepair ? text::oneLine(status.lastRepair->what, longestReason) : std::string());
    add(device::engine, text::oneLine(status.form, longestReason));
    add(device::version, std::string(MOATKEEPER_VERSION));
    add(device::started, m_started);
    writeSoon();
}

void DeviceRow::stop()
{
    if (m_name.empty() || !m_served || m_wanted.empty())
        return;
    m_send(ovsdb::updateRows(
               schema::deviceTable, ovsdb::rowsWith(device::name, m_name),
               {{std::string(device::number), tessera::Value(-1)},
                {std::string(device::inStep), tessera::Value(0)},
                {std::string(device::inStepSince), tessera::Value(text::utcTime(std::chrono::system_clock::now()))},
                {std::string(device::reason), tessera::Value(std::string("the daemon was stopped"))},
                {std::string(device::started), tessera::Value(std::string())}}),
           [](const ovsdb::Json&, const std::optional<std::string>&) {});
}

// Now, or when the pause since the last write is over. While an answer is to come nothing is written: what is wanted
// then is looked at when it has come.
void DeviceRow::writeSoon()
{
    if (m_name.empty() || !m_served || m_asked || m_wanted.empty() || m_wanted == m_sent || m_timer != 0)
        return;
    const auto left = m_lastWrite + pause - Clock::now();
    if (left <= Clock::duration::zero())
        return write();
    m_timer = m_dispatcher.startTimer(std::chrono::ceil<std::chrono::milliseconds>(left), [this] {
        m_timer = 0;
        writeSoon();
    });
}

void DeviceRow::write()
{
    m_lastWrite = Clock::now();
    m_asked = true;
    m_sent = m_wanted;
    m_send(ovsdb::updateRows(schema::deviceTable, ovsdb::rowsWith(device::name, m_name), sentNow()),
           [this](const ovsdb::Json& result, const std::optional<std::string>& error) {
               if (error)
                   return refused(*error);
               const ovsdb::Json* count = result.find("count");
               if (count != nullptr && count->asInteger() == 0)
                   return insert();
               taken();
           });
}

// The first time that the server hears of this device.
void DeviceRow::insert()
{
    ovsdb::ColumnValues row = sentNow();
    row.emplace_back(std::string(device::name), tessera::Value(m_name));
    m_send(ovsdb::insertRow(schema::deviceTable, row),
           [this](const ovsdb::Json&, const std::optional<std::string>& error) {
               if (error)
                   return refused(*error);
               taken();
           });
}

ovsdb::ColumnValues DeviceRow::sentNow() const
{
    ovsdb::ColumnValues row = m_sent;
    row.emplace_back(std::string(device::seen), tessera::Value(text::utcTime(std::chrono::system_clock::now())));
    return row;
}

// The whole row, which somebody may have deleted meanwhile.
void DeviceRow::writeAgainLater(bool isLost)
{
    m_dispatcher.stopTimer(m_beat);
    std::chrono::milliseconds longest = std::chrono::seconds(m_heartbeat);
    if (isLost || (m_heartbeat == 0 && m_toldRefused))
        longest = m_afterRefusal;
    if (longest.count() == 0)
        return;
    const auto some = std::chrono::milliseconds(Clock::now().time_since_epoch().count() / 1000 % longest.count());
    m_beat = m_dispatcher.startTimer((longest + some) / 2, [this] {
        m_sent.clear();
        writeSoon();
    });
}

void DeviceRow::taken()
{
    m_asked = false;
    m_toldRefused = false;
    writeAgainLater();
    writeSoon();
}

void DeviceRow::refused(const std::string& reason)
{
    m_asked = false;
    const bool isLost = reason == "canceled"; // by a relay that has lost its own server; nobody is to be told
    if (!isLost && !std::exchange(m_toldRefused, true))
        ZOL_Sysloglevel_warning(m_logModule, deviceLabel, 20,
                                "the server does not take what is in force here: " + reason);
    // What was sent counts as told until then.
    writeAgainLater(isLost);
    writeSoon();
}

} // namespace zol::cfg
