#include "moatctl/command_line/await_in_force.hpp"

#include "moatctl/check/rows_not_in_force.hpp"
#include "moatctl/command_line/progress.hpp"
#include "moatctl/tables/server.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <chrono>
#include <memory>
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
    // The client follows all tables.
    Waiting(Program& program, ovsdb::Client& client, std::int32_t number)
        : m_program(program),
          m_progress(program),
          m_number(number),
          m_end(Clock::now() + program.server.timeout),
          m_client(&client)
    {
    }

    // Until so many devices have it in force that the quorum is reached without `apart` of them, or all have.
    Seen wait(std::size_t apart)
    {
        m_apart = apart;
        m_reached = {};
        while (m_client == nullptr || !follow()) {
            if (isOver())
                break;
            tryAgain();
        }
        m_progress.clear();
        return std::move(m_seen);
    }

    // Nothing more can come of waiting.
    bool isExhausted() const { return hasAll() || Clock::now() >= m_end; }

private:
    static constexpr milliseconds glance{100}; // how long nothing is shown
    static constexpr milliseconds pause{100};  // between attempts to reach the server

    bool hasAll() const { return m_reached.devices != 0 && m_reached.reached == m_reached.devices; }

    bool isOver() const
    {
        std::size_t wanted = m_program.quorum.of(m_reached.devices);
        if (wanted <= m_reached.devices)
            wanted = std::min(wanted + m_apart, m_reached.devices);
        return (m_reached.devices != 0 && m_reached.reached >= wanted) || Clock::now() >= m_end;
    }

    // False: the server was lost.
    bool follow()
    {
        try {
            const ovsdb::TableCache& state = m_client->followed();
            for (;;) {
                m_reached = reached(state, m_number);
                if (isOver())
                    break;
                m_progress.show("stored; waiting until it is in force", m_reached.reached,
                                m_reached.devices > 1 ? m_reached.devices : 0);
                lookUp();
                m_client->awaitChange(std::min<Clock::time_point>(m_end, Clock::now() + glance));
            }
            m_seen = {.devices = countingDevices(state), .configuration = {}, .lost = {}};
            if (std::ranges::any_of(m_seen.devices, [](const Device& device) { return device.notInForceCount != 0; }))
                m_seen.configuration = toConfiguration(state);
            return true;
        } catch (const ovsdb::Error& error) {
            lose(error);
            return false;
        }
    }

    void tryAgain()
    {
        m_progress.show("stored; the configuration server is away, waiting for it");
        lookUp();
        std::this_thread::sleep_for(std::min<Clock::duration>(pause, m_end - Clock::now()));
        ovsdb::ClientOptions options = m_program.server;
        options.onProgress = {};
        options.timeout = std::max(std::chrono::ceil<milliseconds>(m_end - Clock::now()), milliseconds(1));
        try {
            m_other.reset(new ovsdb::Client(m_program.connect(options)));
            m_other->follow(m_other->tableNames());
            m_client = m_other.get();
        } catch (const ovsdb::Error& error) {
            lose(error);
        }
    }

    void lookUp() const
    {
        if (m_program.whileWaiting)
            m_program.whileWaiting();
    }

    void lose(const ovsdb::Error& error)
    {
        m_client = nullptr;
        m_reached = {};
        m_seen = {};
        m_seen.lost = error.what();
    }

    Program& m_program;
    Progress m_progress;
    const std::int32_t m_number;
    const Clock::time_point m_end;
    ovsdb::Client* m_client;                // nullptr: lost
    std::unique_ptr<ovsdb::Client> m_other; // after the first was lost
    std::size_t m_apart = 0;
    Reached m_reached;
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

// Names the rows in lines.
Verdict verdictOnRows(const Device& device, const std::vector<RowNotInForce>& rows, bool several, std::string& lines)
{
    const std::string where = several ? " on " + text::oneLine(device.name) : "";
    for (const RowNotInForce& row : rows)
        lines += "not in force" + where + ": " + toText(row) + '\n';
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

struct Verdicts {
    std::size_t inForce = 0;
    std::size_t apart = 0; // devices that have the change, but not all its rows
    std::vector<Verdict> bad;
    std::vector<std::string> rows; // that are not in force, told before the verdicts
};

constexpr std::size_t namedDevices = 10; // the others are counted

Verdicts judge(Program& program, const Stored& stored, const Seen& seen, const std::vector<RowNotInForce>& unusable)
{
    Verdicts verdicts;
    for (const Device& device : seen.devices) {
        Verdict verdict = verdictOn(device, *stored.number, program.server.timeout);
        if (verdict.status == ExitStatus::Ok) {
            const std::vector<RowNotInForce> rows =
                device.notInForceCount == 0 ? unusable : rowsNotInForce(seen.configuration, device.lines());
            std::string lines;
            verdict = verdictOnRows(device, ofChange(rows, stored, device.name), seen.devices.size() > 1, lines);
            if (verdict.status != ExitStatus::Ok) {
                ++verdicts.apart;
                verdicts.rows.push_back(std::move(lines));
            }
        }
        if (verdict.status == ExitStatus::Ok)
            ++verdicts.inForce;
        else
            verdicts.bad.push_back(std::move(verdict));
    }
    return verdicts;
}

// The rows, and the verdicts but the worst, which is returned.
Verdict tell(Program& program, const Verdicts& verdicts)
{
    for (std::size_t i = 0; i < std::min(verdicts.rows.size(), namedDevices); ++i)
        program.err << verdicts.rows[i]; // standard error has no buffer
    const Verdict& worst = *std::ranges::max_element(verdicts.bad, {}, &Verdict::status);
    std::size_t named = 0;
    for (const Verdict& verdict : verdicts.bad) {
        if (&verdict != &worst && ++named < namedDevices)
            program.err << "stored, but " << verdict.text << '\n';
    }
    Verdict last = worst;
    if (named >= namedDevices)
        last.text += "; and " + std::to_string(named - namedDevices + 1) + " devices more (moatctl devices shows them)";
    return last;
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
    Waiting waiting(program, client, *stored.number);
    // Looked for while the daemons are at work.
    std::vector<RowNotInForce> unusable;
    if (!stored.flawless)
        unusable = rowsNotInForce(stored.after, {});
    Verdicts verdicts;
    Seen seen;
    std::size_t wanted = 0;
    do {
        seen = waiting.wait(verdicts.apart);
        verdicts = judge(program, stored, seen, unusable);
        wanted = program.quorum.of(seen.devices.size());
    } while (verdicts.inForce < wanted && !waiting.isExhausted());

    if (!seen.lost.empty())
        verdicts.bad.push_back({ExitStatus::NotApplied, "not known to be in force: " + seen.lost});
    else if (seen.devices.empty())
        verdicts.bad.push_back({ExitStatus::NotApplied, "no daemon applies it: the server has not heard of one"});
    if (program.quorum == Quorum()) {
        if (verdicts.bad.empty())
            return;
        const Verdict last = tell(program, verdicts);
        throw Failure(last.status, "stored, but " + last.text);
    }
    const std::string count =
        "in force on " + std::to_string(verdicts.inForce) + " of " + std::to_string(seen.devices.size()) + " devices";
    if (verdicts.inForce >= wanted) {
        program.err << count << '\n';
        return;
    }
    if (verdicts.bad.empty())
        throw Failure(ExitStatus::NotApplied, "stored, but " + count + " and there are no others, --wait " +
                                                  toText(program.quorum) + " asks for " + std::to_string(wanted));
    program.err << "stored, but " << count << ", --wait " << toText(program.quorum) << " asks for " << wanted << '\n';
    const Verdict last = tell(program, verdicts);
    throw Failure(last.status, "stored, but " + last.text);
}

} // namespace moatctl
