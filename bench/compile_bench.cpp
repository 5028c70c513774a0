// What the compiled form of many rules costs when one of them changes, or all: the time that it takes to make the
// program, to compare it with the one before and to write what differs as messages for the kernel, and how many these
// are. No kernel is asked.
//
// usage: compile_bench [rules]     (10000 otherwise)
// Each rule is one of ten shapes, between two ports, but where it says otherwise. anew: compile() as it is, which knows
// nothing of the program before but its places; kept: a compiled::Keeper, as for one commit after the other. Medians of
// many changes, each at a random place, in milliseconds of the processor's time; the ways take turns.
#include "compiled/compile.hpp"
#include "compiled/difference.hpp"
#include "compiled/keeper.hpp"
#include "compiled/mark.hpp"
#include "ebtables/line_parser.hpp"
#include "nftables/program.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace
{

using Row = std::function<std::string(unsigned place, unsigned number)>; // a rule for this place of the list

std::string hex(unsigned number, unsigned digits)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%0*x", static_cast<int>(digits), number);
    return text.data();
}

std::string decimal(unsigned number)
{
    return std::to_string(number);
}

std::string mac(unsigned number)
{
    return "02:cc:" + hex(number >> 24U & 255U, 2) + ":" + hex(number >> 16U & 255U, 2) + ":" +
           hex(number >> 8U & 255U, 2) + ":" + hex(number & 255U, 2);
}

std::string ip4(unsigned number)
{
    return "10." + decimal(number >> 16U & 255U) + "." + decimal(number >> 8U & 255U) + "." + decimal(number & 255U);
}

std::string ip6(unsigned number)
{
    return "2001:db8::" + hex(number >> 16U, 1) + ":" + hex(number & 65535U, 1);
}

std::string shaped(unsigned shape, unsigned i)
{
    const std::string port = decimal(1 + i % 60000);
    switch (shape % 10) {
    case 0:
        return "-s " + mac(i);
    case 1:
        return "-d " + mac(i);
    case 2:
        return "-s " + mac(i) + " -d " + mac(i + 1);
    case 3:
        return "-p 0x800 --ip-source " + ip4(i);
    case 4:
        return "-p 0x800 --ip-source " + ip4(i) + " --ip-protocol 17 --ip-destination-port " + port;
    case 5:
        return "-p 0x800 --ip-source " + ip4(i) + " --ip-destination " + ip4(i + 1) +
               " --ip-protocol 6 --ip-destination-port " + port;
    case 6:
        return "-p 0x86dd --ip6-source " + ip6(i);
    case 7:
        return "-p 0x86dd --ip6-destination " + ip6(i) + " --ip6-protocol 6 --ip6-destination-port " + port;
    case 8:
        return "-p 0x8100 -s " + mac(i) + " --vlan-id " + decimal(i % 4095);
    default:
        return "-s " + mac(i) + " -p 0x800 --ip-protocol 17 --ip-destination-port " + port;
    }
}

std::string between(const std::string& in, const std::string& out, unsigned shape, unsigned number)
{
    return "-i " + in + " -o " + out + " " + shaped(shape, number) + (shape % 2 == 0 ? " -j ACCEPT" : " -j DROP");
}

// Pairs of lengths of networks; no two rules have a frame in common while their numbers have fourteen bits.
std::string ofManyShapes(unsigned place, unsigned number)
{
    const unsigned own = number << 18U;
    return "-i p0 -o p1 -p 0x800 --ip-source " + decimal(own >> 24U & 255U) + "." + decimal(own >> 16U & 255U) +
           ".0.0/" + decimal(14 + place % 600 % 19) + " --ip-destination 10.0.0.0/" + decimal(1 + place % 600 / 19) +
           " -j DROP";
}

double now()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double median(std::vector<double> times)
{
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

struct Times {
    std::vector<double> compile;
    std::vector<double> compare;
    std::vector<double> write;
    std::vector<double> messages;

    void print(const char* what, const char* way) const
    {
        std::printf("  %-28s%-6s%9.2f%9.2f%9.2f%9.2f%10.0f\n", what, way, median(compile), median(compare),
                    median(write), median(compile) + median(compare) + median(write), median(messages));
    }
};

class Bench
{
public:
    Bench(unsigned rules, Row row) : m_rules(rules), m_row(std::move(row)) {}

    void run(const char* name)
    {
        std::printf("%s\n", name);
        fill(0);
        compiled::Program none;
        m_held = none;
        change("all rules, for the first time", 5, [this] {
            m_keeper.forget();
            m_held = {};
        });
        change("one rule replaced", 21, [this] { replace(anyPlace()); });
        change("one rule more", 21, [this] { insert(anyPlace()); });
        change("one rule less", 21, [this] { erase(anyPlace()); });
        change("ten rules replaced", 21, [this] {
            for (int i = 0; i < 10; ++i)
                replace(anyPlace());
        });
        change("all rules replaced", 5, [this] { fill(m_next); });
    }

private:
    std::vector<ebtables::TableRule>& rules() { return m_table.find("FORWARD")->rules; }
    std::size_t anyPlace() { return m_random() % rules().size(); }

    ebtables::TableRule made(unsigned place)
    {
        ebtables::TableRule rule;
        rule.text = m_row(place, m_next++);
        rule.rule = ebtables::parseRule(rule.text, "FORWARD");
        if (!rule.rule) {
            std::fprintf(stderr, "compile_bench: %s is no rule\n", rule.text.c_str());
            std::exit(1);
        }
        return rule;
    }

    void fill(unsigned from)
    {
        m_next = from;
        rules().clear();
        for (unsigned i = 0; i < m_rules; ++i)
            rules().push_back(made(i));
    }

    void replace(std::size_t place) { rules()[place] = made(static_cast<unsigned>(place)); }

    void insert(std::size_t place)
    {
        rules().insert(rules().begin() + static_cast<std::ptrdiff_t>(place), made(static_cast<unsigned>(place)));
    }

    void erase(std::size_t place) { rules().erase(rules().begin() + static_cast<std::ptrdiff_t>(place)); }

    void change(const char* what, int rounds, const std::function<void()>& doChange)
    {
        Times anew;
        Times kept;
        for (int i = 0; i < rounds; ++i) {
            doChange();
            compiled::mark(m_table);
            measure(anew, [this] { return compiled::compile(m_table, &m_held); });
            m_held = measure(kept, [this] { return m_keeper.compile(m_table, &m_held); });
        }
        anew.print(what, "anew");
        kept.print("", "kept");
    }

    compiled::Program measure(Times& times, const std::function<std::optional<compiled::Program>()>& compile)
    {
        const double begin = now();
        compiled::Program wanted = compile().value();
        const double compiled = now();
        const compiled::Difference difference = compiled::difference(m_held, wanted);
        const double compared = now();
        nftables::Batch batch(std::nullopt, nftables::compiledTable);
        nftables::addChanges(batch, m_held, wanted, difference);
        times.compile.push_back(compiled - begin);
        times.compare.push_back(compared - compiled);
        times.write.push_back(now() - compared);
        times.messages.push_back(static_cast<double>(batch.messages()));
        return wanted;
    }

    const unsigned m_rules;
    const Row m_row;
    unsigned m_next = 0;
    ebtables::Table m_table = ebtables::emptyTable();
    compiled::Program m_held;
    compiled::Keeper m_keeper;
    std::mt19937 m_random{1};
};

} // namespace

int main(int argc, char** argv)
{
    const int asked = argc > 1 ? std::atoi(argv[1]) : 10000;
    if (asked < 100) {
        std::fprintf(stderr, "compile_bench: expected a number of rules, 100 or more, found \"%s\"\n", argv[1]);
        return 1;
    }
    const auto count = static_cast<unsigned>(asked);
    std::printf("%u rules, milliseconds%31s%9s%9s%9s%10s\n", count, "compile", "compare", "write", "all", "messages");
    Bench(count, [](unsigned place, unsigned number) { return between("p0", "p1", place, number); }).run("mixed");
    Bench(count, [=](unsigned place, unsigned number) {
        return between("p0", "p1", place * 10 / count, number);
    }).run("one shape after the other");
    Bench(count, [](unsigned, unsigned number) { return between("p0", "p1", 4, number); }).run("one shape");
    Bench(count, [](unsigned place, unsigned number) {
        return between("p" + decimal(number % 16), "p" + decimal(number / 16 % 16), place, number);
    }).run("mixed, between sixteen ports");
    Bench(count, ofManyShapes).run("600 shapes");
}
