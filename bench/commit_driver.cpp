// Drives the handler and the command queue by commands on standard input, in the network namespace that it runs in;
// answers one line each. For the commit benchmark.
//
//   rules COUNT VARIANT   the rule table gets COUNT rules; VARIANT (a number) changes every one of them
//   change                one rule, each time another one, gets another sender
//   deliver               hands the tables to the handler; answers when commitToSystem was called and when its
//                         transaction had ended, in microseconds of the monotonic clock
//   lines                 answers the lines that the next delivery would queue, behind their number
//   quit                  ends, cleaning up
#include "handler/moatkeeper.hpp"
#include "platform_fake/memory_tables.hpp"
#include "platform_linux/queue/transaction_queue.hpp"

#include <chrono>
#include <cstdint>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr const char* rulesTable = "MoatKeeperRuleset";

std::string macAddress(std::int32_t number)
{
    std::ostringstream text;
    text << std::hex << "02:00:00:" << (number >> 16 & 0xff) << ':' << (number >> 8 & 0xff) << ':' << (number & 0xff);
    return text.str();
}

// A third each matches a MAC address, an IPv4 source, and an IPv4 destination with a TCP port.
fake::Row ruleRow(std::int32_t number, std::int32_t variant)
{
    fake::Row row;
    row.set("Id", number).set("Enabled", 1).set("RulePrio", number).set("VLANID", -1);
    row.set("InInterface", "in").set("OutInterface", "out");
    const std::string host =
        std::to_string(variant % 250) + "." + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
    switch (number % 3) {
    case 0:
        return row.set("SrcMAC", macAddress(number + variant * 100'000)).set("Target", "DROP");
    case 1:
        return row.set("Ethertype", "IPv4").set("IPSrcAddr", "10." + host).set("Target", "DROP");
    default:
        return row.set("Ethertype", "IPv4")
            .set("IPDstAddr", "10." + host)
            .set("IPProto", "TCP")
            .set("IPPort", 80)
            .set("Target", "ACCEPT");
    }
}

// Notes the lines in place of carrying them out.
class NotingQueue : public zol::cfg::ActionQueue
{
public:
    void addCommand(const std::string& commandLine) override { lines.push_back(commandLine); }
    int process() override { return 0; }

    std::vector<std::string> lines;
};

} // namespace

int main(int argc, char* argv[])
{
    ZOL_Sysloglevel_construct2("", argv[0]);
    zol::cfg::TransactionQueueOptions options;
    if (argc > 1)
        options.recordFolder = argv[1];
    zol::cfg::TransactionQueue queue(options);
    zol::moatkeeper::moatkeeper handler;

    fake::MemoryTables tables;
    std::vector<fake::Row> rules;
    std::size_t changes = 0;
    tables.setRows("MoatKeeper",
                   {fake::Row().set("GlobalInputPolicy", "ACCEPT").set("GlobalForwardingPolicy", "ACCEPT")});

    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "rules") {
            std::int32_t count = 0;
            std::int32_t variant = 0;
            words >> count >> variant;
            rules.clear();
            for (std::int32_t number = 1; number <= count; ++number)
                rules.push_back(ruleRow(number, variant));
            tables.setRows(rulesTable, rules);
            std::cout << "ok" << std::endl;
        } else if (command == "change" && !rules.empty()) {
            ++changes;
            rules[changes * 7919 % rules.size()].set("SrcMAC", macAddress(0xf0'0000 + static_cast<int>(changes)));
            tables.setRows(rulesTable, rules);
            std::cout << "ok" << std::endl;
        } else if (command == "deliver") {
            handler.loadFromConfig(tables, "");
            const auto start = std::chrono::steady_clock::now();
            handler.commitToSystem(tables, &queue);
            queue.endDelivery();
            const auto end = std::chrono::steady_clock::now();
            for (const auto& time : {start, end})
                std::cout << std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count()
                          << ' ';
            std::cout << std::endl;
        } else if (command == "lines") {
            NotingQueue noting;
            zol::moatkeeper::moatkeeper other;
            other.loadFromConfig(tables, "");
            other.commitToSystem(tables, &noting);
            std::cout << noting.lines.size() << '\n';
            for (const std::string& noted : noting.lines)
                std::cout << noted << '\n';
            std::cout << std::flush;
        } else if (command == "quit") {
            break;
        } else {
            std::cout << "not understood: " << line << std::endl;
        }
    }
}
