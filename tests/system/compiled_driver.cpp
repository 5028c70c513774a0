// Random rules and frames for a test that compares the two forms of the rules in the kernel of its network namespace.
//
// usage: compiled_driver held             whether the kernel has what is made of the rules on standard input, which are
// as
//                                         ebtables-save prints them; then "mark packets bytes" of each chain's rules
//        compiled_driver rules SEED          the rules, as lines for ebtables-restore
//        compiled_driver frames SEED COUNT   frames for them: "port bytes", a line each
//        compiled_driver apply SEED          puts the compiled form into the kernel, as table moatkeeper
//        compiled_driver marks SEED          "chain mark" for each rule, in the order of the lines
//        compiled_driver counters SEED       "mark packets bytes", a line each, summed up from table moatkeeper
//        compiled_driver changes SEED COUNT  so many programs one after the other, each made of the one before and read
//                                            back; says what differs
#include "compiled/compile.hpp"
#include "compiled/describe.hpp"
#include "compiled/difference.hpp"
#include "compiled/keeper.hpp"
#include "compiled/mark.hpp"
#include "nftables/connection.hpp"
#include "nftables/program.hpp"
#include "nftables/program_reader.hpp"
#include "tests/compiled/random_rules.hpp"

#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>

namespace
{

struct Random {
    explicit Random(unsigned seed) : engine(seed), rules([this](std::size_t below) { return engine() % below; })
    {
        // So many now and then that places in a race have their high digits in common.
        table = rules.table(1 + engine() % (seed % 4 == 3 ? 2000 : 120), seed % 2 == 0);
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
    nftables::Batch batch(std::nullopt, nftables::compiledTable);
    nftables::addProgram(batch, compiled::compile(table).value());
    const nftables::Result result = nftables::Connection().apply(batch);
    for (const nftables::Refusal& refusal : result.refusals)
        std::cerr << "message " << refusal.message << ": " << refusal.text << '\n';
    if (result.answer != nftables::Answer::Done)
        throw std::runtime_error("not taken: " + result.reason);
}

nftables::HeldProgram readBack()
{
    nftables::Connection connection;
    nftables::HeldProgram held;
    bool settled = true;
    const nftables::Result result = nftables::readProgram(connection, nftables::compiledTable, held, settled);
    if (result.answer != nftables::Answer::Done)
        throw std::runtime_error("not read: " + result.reason);
    return held;
}

void printCounters()
{
    for (const auto& [origin, sum] : nftables::countedBy(readBack())) {
        if (sum.packets != 0)
            std::cout << origin << ' ' << sum.packets << ' ' << sum.bytes << '\n';
    }
}

// Throws when the kernel has another program.
void expectHeld(const compiled::Program& program, const std::string& when)
{
    const nftables::HeldProgram held = readBack();
    if (held.isWhole && compiled::difference(held.program, program).empty())
        return;
    const compiled::Difference difference = compiled::difference(held.program, program);
    std::cout << (held.isWhole ? "understood" : "not understood") << '\n';
    for (const compiled::Difference::Elements& changes : difference.elements)
        std::cout << changes.gone.size() << " elements too many and " << changes.added.size() << " missing in "
                  << program.maps[changes.to].name << '\n';
    std::cout << "wanted:\n" << compiled::describe(program) << "held:\n" << compiled::describe(held.program);
    throw std::runtime_error("another program is in the kernel " + when);
}

void change(Random& random, unsigned long count)
{
    compiled::Keeper keeper;
    compiled::Program before;
    ebtables::Table table = random.table;
    std::size_t elements = 0;
    std::size_t messages = 0;
    for (unsigned long i = 0; i < count; ++i) {
        if (i % 5 == 0)
            table = random.rules.table(1 + random.engine() % 120, i % 2 == 0);
        for (ebtables::Chain& chain : table.chains)
            std::erase_if(chain.rules, [&](const ebtables::TableRule& rule) {
                // Beside an id the kernel forgets the priority, and the rule comes back as another one.
                return random.engine() % 10 == 0 || (rule.rule->vlan.id && rule.rule->vlan.priority);
            });
        compiled::mark(table);
        const compiled::Program after = keeper.compile(table, &before).value();
        const compiled::Difference difference = compiled::difference(before, after);
        nftables::Batch batch(std::nullopt, nftables::compiledTable);
        nftables::addChanges(batch, before, after, difference);
        messages += batch.messages();
        for (const compiled::Difference::Elements& changes : difference.elements)
            elements += changes.gone.size() + changes.added.size();
        const nftables::Result result = nftables::Connection().apply(batch);
        if (result.answer != nftables::Answer::Done)
            throw std::runtime_error("not taken: " + result.reason);
        expectHeld(after, "after change " + std::to_string(i));
        before = after;
    }
    nftables::Batch batch(std::nullopt, nftables::compiledTable);
    nftables::addChanges(batch, before, {}, compiled::difference(before, {}));
    nftables::Connection().apply(batch);
    expectHeld({}, "after all was taken out");
    nftables::Batch last(std::nullopt, nftables::compiledTable);
    last.deleteTable();
    nftables::Connection().apply(last);
    if (readBack().table != 0)
        throw std::runtime_error("the table is still there");
    std::cout << messages << " messages, " << elements << " elements of maps that stayed\n";
}

// Places depend on what was there before: what is held must be what it would be changed to.
void checkHeld()
{
    const std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    ebtables::Table table = ebtables::parseSaved(text);
    compiled::mark(table);
    const nftables::HeldProgram held = readBack();
    if (held.table == 0)
        throw std::runtime_error("the kernel has no compiled form");
    expectHeld(compiled::compile(table, &held.program).value(), "");
    const nftables::CountersByMark counted = nftables::countedBy(held);
    for (const ebtables::Chain& chain : table.chains) {
        for (const ebtables::TableRule& rule : chain.rules) {
            const auto found = counted.find(rule.origin);
            const nftables::Counters counters = found == counted.end() ? nftables::Counters() : found->second;
            std::cout << chain.name << ' ' << counters.packets << ' ' << counters.bytes << '\n';
        }
    }
}

} // namespace

int main(int count, char** arguments)
{
    const std::string what = count > 1 ? arguments[1] : "";
    try {
        if (what == "held") {
            checkHeld();
            return 0;
        }
        Random random(count > 2 ? static_cast<unsigned>(std::strtoul(arguments[2], nullptr, 10)) : 0);
        if (what == "rules" && count > 2)
            printRules(random.table);
        else if (what == "marks")
            printMarks(random.table);
        else if (what == "apply")
            apply(random.table);
        else if (what == "counters")
            printCounters();
        else if (what == "frames" && count > 3)
            for (unsigned long left = std::strtoul(arguments[3], nullptr, 10); left > 0; --left)
                printFrame(random.rules.frame(random.table));
        else if (what == "changes" && count > 3)
            change(random, std::strtoul(arguments[3], nullptr, 10));
        else
            throw std::runtime_error(
                "usage: compiled_driver rules|marks|apply|counters SEED, or frames|changes SEED COUNT");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
