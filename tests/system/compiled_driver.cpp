// Random rules and frames for a test that compares the two forms of the rules in the kernel of its network namespace.
//
// usage: compiled_driver rules SEED          the rules, as lines for ebtables-restore
//        compiled_driver frames SEED COUNT   frames for them: "port bytes", a line each
//        compiled_driver apply SEED          puts the compiled form into the kernel, as table moatkeeper
//        compiled_driver marks SEED          "chain mark" for each rule, in the order of the lines
//        compiled_driver counters SEED       "mark packets bytes", a line each, summed up from table moatkeeper
#include "compiled/compile.hpp"
#include "nftables/attributes.hpp"
#include "nftables/connection.hpp"
#include "nftables/program.hpp"
#include "tests/compiled/random_rules.hpp"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace
{

constexpr const char* tableName = "moatkeeper";
constexpr std::size_t bufferSize = 64U << 10U;

struct Random {
    explicit Random(unsigned seed) : engine(seed), rules([this](std::size_t below) { return engine() % below; })
    {
        table = rules.table(1 + engine() % (seed % 4 == 3 ? 400 : 120), seed % 2 == 0);
    }
    std::mt19937 engine;
    test::RandomRules rules;
    ebtables::Table table;
};

void printRules(const ebtables::Table& table)
{
    std::cout << "*filter\n";
    for (const ebtables::Chain& chain : table.chains)
        std::cout << ':' << chain.name << ' ' << chain.policy << '\n';
    for (const ebtables::Chain& chain : table.chains) {
        for (const ebtables::TableRule& rule : chain.rules)
            std::cout << "-A " << chain.name << ' ' << ebtables::toText(*rule.rule) << '\n';
    }
}

void printMarks(const ebtables::Table& table)
{
    for (const ebtables::Chain& chain : table.chains) {
        for (const ebtables::TableRule& rule : chain.rules)
            std::cout << chain.name << ' ' << rule.origin << '\n';
    }
}

void printFrame(const test::RawFrame& frame)
{
    std::cout << frame.in << ' ' << (frame.out.empty() ? "device" : "other") << ' ';
    for (const std::uint8_t byte : frame.link())
        std::cout << std::hex << std::setw(2) << std::setfill('0') << unsigned{byte} << std::dec;
    std::cout << '\n';
}

void apply(const ebtables::Table& table)
{
    nftables::Batch batch(std::nullopt, tableName);
    nftables::addProgram(batch, compiled::compile(table).value());
    const nftables::Result result = nftables::Connection().apply(batch);
    for (const nftables::Refusal& refusal : result.refusals)
        std::cerr << "message " << refusal.message << ": " << refusal.text << '\n';
    if (result.answer != nftables::Answer::Done)
        throw std::runtime_error("not taken: " + result.reason);
}

// Asks for a list and visits its messages.
void list(std::uint16_t type, const std::function<void(nlmsghdr*)>& put,
          const std::function<void(const nlmsghdr*)>& visit)
{
    int error = 0;
    const std::unique_ptr<nftables::Socket> socket = nftables::openSocket(error);
    if (socket == nullptr)
        throw std::runtime_error("no socket");
    alignas(8) std::array<std::uint8_t, 1024> request{};
    nlmsghdr* message = mnl_nlmsg_put_header(request.data());
    message->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8U | type);
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->nfgen_family = NFPROTO_BRIDGE;
    put(message);
    socket->send({request.data(), message->nlmsg_len});
    std::vector<std::uint8_t> buffer(bufferSize);
    for (;;) {
        const nftables::Socket::Received received = socket->receive(buffer, true);
        if (received.error != 0)
            throw std::runtime_error("no answer");
        nftables::Bytes bytes(buffer.data(), received.size);
        while (const nlmsghdr* answer = nftables::takeMessage(bytes)) {
            if (answer->nlmsg_type == NLMSG_DONE)
                return;
            if (answer->nlmsg_type == NLMSG_ERROR)
                throw std::runtime_error("the kernel refuses the list");
            visit(answer);
        }
    }
}

struct Sum {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
};
using Sums = std::map<ebtables::Origin, Sum>;

void addElement(const nlattr* element, Sums& sums)
{
    ebtables::Origin origin = ebtables::noOrigin;
    Sum counted;
    nftables::forEachNested(element, [&](const nlattr* part) {
        if (mnl_attr_get_type(part) == NFTA_SET_ELEM_USERDATA)
            std::memcpy(&origin, mnl_attr_get_payload(part), sizeof origin);
        if (mnl_attr_get_type(part) != NFTA_SET_ELEM_EXPR)
            return;
        nftables::forEachNested(part, [&](const nlattr* expression) {
            if (mnl_attr_get_type(expression) != NFTA_EXPR_DATA)
                return;
            nftables::forEachNested(expression, [&](const nlattr* field) {
                if (mnl_attr_get_type(field) == NFTA_COUNTER_PACKETS)
                    counted.packets = nftables::longNumberOf(field).value_or(0);
                if (mnl_attr_get_type(field) == NFTA_COUNTER_BYTES)
                    counted.bytes = nftables::longNumberOf(field).value_or(0);
            });
        });
    });
    sums[origin].packets += counted.packets;
    sums[origin].bytes += counted.bytes;
}

void printCounters(const ebtables::Table& table)
{
    const compiled::Program program = compiled::compile(table).value();
    Sums sums;
    for (const compiled::Map& map : program.maps) {
        list(
            NFT_MSG_GETSETELEM,
            [&](nlmsghdr* request) {
                nftables::putText(request, NFTA_SET_ELEM_LIST_TABLE, tableName);
                nftables::putText(request, NFTA_SET_ELEM_LIST_SET, map.name.c_str());
            },
            [&](const nlmsghdr* answer) {
                nftables::forEachAttribute(answer, sizeof(nfgenmsg), [&](const nlattr* attribute) {
                    if (mnl_attr_get_type(attribute) == NFTA_SET_ELEM_LIST_ELEMENTS)
                        nftables::forEachNested(attribute, [&](const nlattr* one) { addElement(one, sums); });
                });
            });
    }
    std::map<std::string, std::size_t> places; // in each chain
    nftables::Expressions expressions;
    list(
        NFT_MSG_GETRULE, [](nlmsghdr* request) { nftables::putText(request, NFTA_RULE_TABLE, tableName); },
        [&](const nlmsghdr* answer) {
            const nftables::RuleView rule = nftables::readRule(answer);
            const std::string chain(rule.chain);
            const compiled::Step& step = program.find(chain)->steps.at(places[chain]++);
            const auto* plain = std::get_if<compiled::PlainRule>(&step.action);
            if (plain == nullptr || !rule.readExpressions(expressions))
                return;
            sums[plain->origin].packets += expressions.counters.packets;
            sums[plain->origin].bytes += expressions.counters.bytes;
        });
    for (const auto& [origin, sum] : sums) {
        if (origin != ebtables::noOrigin && sum.packets != 0)
            std::cout << origin << ' ' << sum.packets << ' ' << sum.bytes << '\n';
    }
}

} // namespace

int main(int count, char** arguments)
{
    const std::string what = count > 2 ? arguments[1] : "";
    try {
        Random random(count > 2 ? static_cast<unsigned>(std::strtoul(arguments[2], nullptr, 10)) : 0);
        if (what == "rules")
            printRules(random.table);
        else if (what == "marks")
            printMarks(random.table);
        else if (what == "apply")
            apply(random.table);
        else if (what == "counters")
            printCounters(random.table);
        else if (what == "frames" && count > 3)
            for (unsigned long left = std::strtoul(arguments[3], nullptr, 10); left > 0; --left)
                printFrame(random.rules.frame(random.table));
        else
            throw std::runtime_error("usage: compiled_driver rules|marks|apply|counters SEED, or frames SEED COUNT");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
