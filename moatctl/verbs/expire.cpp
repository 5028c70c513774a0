#include "moatctl/command_line/occasion.hpp"
#include "moatctl/command_line/screen.hpp"
#include "moatctl/tables/history.hpp"
#include "moatctl/verbs/all.hpp"
#include "schema/server/trial.hpp"

#include <chrono>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

namespace moatctl
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::hours untilLooking{1};
constexpr std::chrono::seconds afterRefusal{1};

// On one connection, until that ends.
class Expiry
{
public:
    Expiry(Program& program, ovsdb::Client& client) : m_program(program), m_client(client)
    {
        m_client.follow(m_client.tableNames());
        look(true);
    }

    void step()
    {
        if (!m_trial) {
            m_client.awaitChange(Clock::now() + untilLooking);
        } else if (Clock::now() < m_end) {
            m_client.awaitChange(m_end);
        } else {
            putBack();
            m_client.awaitChange(Clock::now() + afterRefusal); // the row's end tells of it
        }
        look(false);
    }

private:
    void look(bool connected)
    {
        std::optional<schema::Trial> now = schema::trialOf(m_client.followed());
        if (now && (!m_trial || m_trial->uuid != now->uuid)) {
            // Seen as it comes, its time begins now, whatever the clock of the machine says that it comes from.
            const std::chrono::milliseconds left =
                connected ? schema::remaining(*now, schema::readClocks()) : std::chrono::seconds(now->seconds);
            m_end = Clock::now() + left;
        }
        m_trial = std::move(now);
    }

    void putBack()
    {
        const std::string name = "change " + std::to_string(m_trial->change);
        Occasion occasion;
        identify(occasion);
        occasion.user = "moatkeeper";
        occasion.verb = "not confirmed in time: " + m_trial->verb;
        const auto result = m_client.transact(schema::putBack(*m_trial, m_client.followed(), entryOf(occasion)));
        const auto failed = result.failedOperation();
        if (result.committed())
            m_program.out << name << " was not confirmed in time and is put back" << std::endl;
        else if (!failed || result.outcomes[*failed].error != "timed out") // that is: somebody else was faster
            m_program.err << name << " was not put back: " << result.errorText() << std::endl;
    }

    Program& m_program;
    ovsdb::Client& m_client;
    std::optional<schema::Trial> m_trial;
    Clock::time_point m_end;
};

ExitStatus expire(Program& program)
{
    endOnSignals();
    std::string told;
    for (;; std::this_thread::sleep_for(ovsdb::Client::reconnectInterval)) {
        try {
            ovsdb::Client client = program.connect();
            Expiry expiry(program, client);
            program.err << "puts changes back that are not confirmed in time" << std::endl;
            told.clear();
            for (;;)
                expiry.step();
        } catch (const ovsdb::Error& error) {
            if (std::exchange(told, error.what()) != error.what())
                program.err << error.what() << "; trying again" << std::endl;
        }
    }
}

} // namespace

void addExpire(const Command& root, Program& program)
{
    const Command command =
        root.add("expire",
                 "Put changes back that were made with --confirm and are not confirmed in time, until "
                 "interrupted; for a server whose devices may change nothing",
                 "expire");
    command.onGiven([&program] { program.action = [&program] { return expire(program); }; });
}

} // namespace moatctl
