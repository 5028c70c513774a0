// Carries out command lines on the kernel's bridge tables of its network namespace, as the command queue does it, for
// tests that compare with the tool.
//
// Each input line is a command line, or one of
//   commit    what came since the last one is carried out, in one transaction; answers what was refused, a line each
//             with "refused " in front, and then "done" or "waiting REASON"
//   own       answers "yes" when the tables are still as the last commit left them, as far as it was told
//   reset     forgets all it knows
#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/kernel_tables.hpp"
#include "platform_linux/queue/play.hpp"

#include <iostream>
#include <optional>
#include <string>

namespace
{

class Driver
{
public:
    void run()
    {
        for (std::string line; std::getline(std::cin, line);) {
            if (line == "reset") {
                m_tables.emplace(m_pool, [] {});
                m_isNew = true;
            } else if (line == "commit") {
                commit();
            } else if (line == "own") {
                const nftables::Result now = nftables::Connection().generation();
                std::cout << (m_tables->isOwn(now.generation.value_or(0)) ? "yes" : "no") << std::endl;
            } else {
                take(line);
            }
        }
    }

private:
    void take(const std::string& line)
    {
        std::string reason;
        if (std::exchange(m_isNew, false))
            m_tables->know(reason);
        const ebtables::ParsedLine parsed = ebtables::parseLine(line);
        if (parsed.error)
            std::cout << "refused " << line << ": " << parsed.error->text() << '\n';
        for (const ebtables::Command& command : parsed.commands) {
            if (const auto refusal = play(zol::cfg::intern(command, m_pool), m_tables->wanted()))
                std::cout << "refused " << line << ": " << *refusal << '\n';
        }
    }

    void commit()
    {
        const auto outcome = m_tables->bring();
        for (const zol::cfg::Dropped& dropped : outcome.dropped)
            std::cout << "refused " << dropped.what << ": " << dropped.reason << '\n';
        std::cout << (outcome.done ? "done" : "waiting " + outcome.reason) << std::endl;
    }

    zol::cfg::RulePool m_pool;
    std::optional<zol::cfg::KernelTables> m_tables;
    bool m_isNew = false;
};

} // namespace

int main()
{
    Driver().run();
    return 0;
}
