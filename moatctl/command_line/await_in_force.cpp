#include "moatctl/command_line/await_in_force.hpp"

#include "moatctl/check/rows_not_in_force.hpp"
#include "moatctl/command_line/progress.hpp"
#include "moatctl/tables/server.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t longestReason = 400;

// What the server told last.
struct Seen {
    std::vector<Device> devices; // those that count
    Configuration configuration; // only if a device names lines
    std::string lost;            // why the server is away; empty: it is not
};

bool haveReached(const std::vector<Device>& devices, std::int32_t number)
{
    return !devices.empty() && std::ranges::all_of(devices, [number](const Device& d) { return d.hasReached(number); });
}

// Those that report, or if none does all.
std::vector<Device> countingDevices(const ovsdb::TableCache& state)
{
    std::vector<Device> devices = devicesOf(state);
    if (std::ranges::any_of(devices, &Device::reports))
        std::erase_if(devices, [](const Device& device) { return !device.reports(); });
    return devices;
}

class Waiting
{
public:
    Waiting(Program& program, std::int32_t number)
        : m_program(program), m_progress(program), m_number(number), m_end(Clock::now() + program.server.timeout)
    {
    }

    Seen wait(ovsdb::Client& client)
    {
        try {
            follow(client);
        } catch (const ovsdb::Error& error) {
            lose(error);
            while (!isOver())
                tryAgain();
        }
        return std::move(m_seen);
    }

private:
    static constexpr milliseconds glance{100}; // how long nothing is shown
    static constexpr milliseconds pause{100};  // between attempts to reach the server

    bool isOver() const { return haveReached(m_seen.devices, m_number) || Clock::now() >= m_end; }

    void follow(ovsdb::Client& client)
    {
        const ovsdb::TableCache& state = client.followed();
        for (;;) {
            m_seen.devices = countingDevices(state);
            if (isOver())
                break;
            m_progress.show("stored; waiting until it is in force");
            client.awaitChange(std::min<Clock::time_point>(m_end, Clock::now() + glance));
        }
        if (std::ranges::any_of(m_seen.devices, [](const Device& device) { return device.notInForceCount != 0; }))
            m_seen.configuration = toConfiguration(state);
    }

    void tryAgain()
    {
        m_progress.show("stored; the configuration server is away, waiting for it");
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, m_end - Clock::now()));
        ovsdb::ClientOptions options = m_program.server;
        options.onProgress = {};
        options.timeout = std::max(std::chrono::ceil<milliseconds>(m_end - Clock::now()), milliseconds(1));
        try {
            ovsdb::Client client = m_program.connect(options);
            client.follow(client.tableNames());
            m_seen.lost.clear();
            follow(client);
        } catch (const ovsdb::Error& error) {
            lose(error);
        }
    }

    void lose(const ovsdb::Error& error)
    {
        m_seen = {};
        m_seen.lost = error.what();
    }

    Program& m_program;
    Progress m_progress;
    const std::int32_t m_number;
    const Clock::time_point m_end;
    Seen m_seen;
};

std::string inWords(milliseconds time)
{
    const auto count = time.count();
    return count % 1000 == 0 ? std::to_string(count / 1000) + " s" : std::to_string(count) + " ms";
}

// What is to be said of a device.
struct Verdict {
    ExitStatus status = ExitStatus::Ok;
    std::string text; // after "stored, but "
};

Verdict verdictOn(const Device& device, std::int32_t number, milliseconds waited)
{
    const std::string name = text::oneLine(device.name);
    if (!device.reports())
        return {ExitStatus::NotApplied,
                "no daemon applies it: that of " + name +
                    (device.reason.empty() ? " has not been heard of since the server was started" : " was stopped")};
    if (device.hasReached(number))
        return {};
    if (!device.inStep)
        return {ExitStatus::NotInForce,
                "not in force: " + name + " cannot change the kernel's tables" +
                    (device.reason.empty() ? "" : ": " + text::oneLine(device.reason, longestReason))};
    return {ExitStatus::NotApplied, "not known to be in force: the daemon of " + name + " has not said so within " +
                                        inWords(waited) + "; it is busy, or has ended"};
}

// Names the rows.
Verdict verdictOnRows(Program& program, const Device& device, const std::vector<RowNotInForce>& rows, bool several)
{
    const std::string where = several ? " on " + text::oneLine(device.name) : "";
    std::string lines; // standard error has no buffer
    for (const RowNotInForce& row : rows)
        lines += "not in force" + where + ": " + toText(row) + '\n';
    program.err << lines;
    const std::size_t named = device.lines().size();
    if (rows.empty() && device.notInForceCount > named)
        return {ExitStatus::NotInForce, "not known to be in force: of " + std::to_string(device.notInForceCount) +
                                            " lines that are not, the daemon names the first " + std::to_string(named)};
    if (rows.empty())
        return {};
    const std::size_t count = countRows(rows);
    std::string text = std::to_string(count) + (count == 1 ? " row is" : " rows are") + " not in force" + where;
    if (device.notInForceCount > named)
        text += ", and " + std::to_string(device.notInForceCount - named) +
                " lines more that the daemon does not name may be among the change's";
    return {ExitStatus::NotInForce, text};
}

} // namespace

void awaitInForce(Program& program, ovsdb::Client& client, const Stored& stored)
{
    if (!stored.changed)
        return;
    if (!stored.number)
        throw Failure(ExitStatus::NotApplied, "stored; the server cannot tell whether it is in force: its database, "
                                              "schema " +
                                                  client.schemaVersion() + ", has no place for that");
    Waiting waiting(program, *stored.number);
    // Looked for while the daemons are at work.
    std::vector<RowNotInForce> unusable;
    if (!stored.flawless)
        unusable = rowsNotInForce(stored.after, {});
    const Seen seen = waiting.wait(client);

    std::vector<Verdict> verdicts;
    for (const Device& device : seen.devices) {
        Verdict verdict = verdictOn(device, *stored.number, program.server.timeout);
        if (verdict.status == ExitStatus::Ok) {
            const std::vector<RowNotInForce> rows =
                device.notInForceCount == 0 ? unusable : rowsNotInForce(seen.configuration, device.lines());
            verdict = verdictOnRows(program, device, ofChange(rows, stored, device.name), seen.devices.size() > 1);
        }
        if (verdict.status != ExitStatus::Ok)
            verdicts.push_back(std::move(verdict));
    }
    if (!seen.lost.empty())
        verdicts.push_back({ExitStatus::NotApplied, "not known to be in force: " + seen.lost});
    else if (seen.devices.empty())
        verdicts.push_back({ExitStatus::NotApplied, "no daemon applies it: the server has not heard of one"});
    if (verdicts.empty())
        return;
    const Verdict& worst = *std::ranges::max_element(verdicts, {}, &Verdict::status);
    for (const Verdict& verdict : verdicts) {
        if (&verdict != &worst)
            program.err << "stored, but " << verdict.text << '\n';
    }
    throw Failure(worst.status, "stored, but " + worst.text);
}

} // namespace moatctl
