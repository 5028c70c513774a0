#include "moatctl/bridge/matrix.hpp"

#include "ebtables/line_parser.hpp"
#include "ebtables/model.hpp"
#include "moatctl/bridge/walk.hpp"
#include "tests/moatctl/random_configuration.hpp"
#include "tests/unit/rounds.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>

namespace
{

using namespace moatctl;

// A frame, and how much of its IP packet there is.
struct Probe {
    Frame frame;
    bool hasHeader = true;
    bool hasPorts = true;
};

bool isMatched(const ebtables::Rule& rule, const Probe& probe)
{
    const bool isIp = rule.ip.any() || rule.ip6.any();
    const bool hasPorts =
        rule.ip.sourcePort || rule.ip.destinationPort || rule.ip6.sourcePort || rule.ip6.destinationPort;
    if ((isIp && !probe.hasHeader) || (hasPorts && !probe.hasPorts))
        return false;
    return match(rule, probe.frame).answer == Answer::Yes;
}

using End = std::pair<const ebtables::Chain*, std::size_t>;

// Where the frame's way ends: a walk that knows of packets that are cut off.
End endOf(const ebtables::Table& table, const Probe& probe)
{
    std::optional<End> end;
    const std::function<bool(const ebtables::Chain&, int)> enter = [&](const ebtables::Chain& chain, int depth) {
        for (std::size_t i = 0; i < chain.rules.size(); ++i) {
            const ebtables::Rule& rule = *chain.rules[i].rule;
            if (rule.target == "CONTINUE" || !isMatched(rule, probe))
                continue;
            if (rule.target == "ACCEPT" || rule.target == "DROP") {
                end = End{&chain, i};
                return false;
            }
            if (rule.target == "RETURN") {
                if (depth != 0)
                    return true;
                break;
            }
            if (!enter(*table.find(rule.target), depth + 1))
                return false;
        }
        if (depth != 0 && chain.policy == "RETURN")
            return true;
        end = End{&chain, chain.rules.size()};
        return false;
    };
    enter(*table.find(probe.frame.out.empty() ? "INPUT" : "FORWARD"), 0);
    return *end;
}

bool isAccepted(const End& end)
{
    const ebtables::Chain& chain = *end.first;
    return end.second < chain.rules.size() ? chain.rules[end.second].rule->target == "ACCEPT" : chain.policy != "DROP";
}

// Frames with every combination of the values between which the rules of random configurations can tell.
std::vector<Probe> allProbes()
{
    using Mac = MacAddress;
    std::vector<Probe> kinds;
    const std::vector<Mac> macs{
        {2, 0, 0, 0, 0, 1}, {2, 0, 0, 0, 0, 2}, {2, 0, 0, 0, 0, 3}, {2, 0, 0, 0, 0, 0}, {2, 0, 0, 0, 0, 9}};
    const auto add = [&](const Probe& kind) {
        for (const Mac& source : macs) {
            for (const Mac& destination : macs) {
                Probe probe = kind;
                probe.frame.source = source;
                probe.frame.destination = destination;
                kinds.push_back(probe);
            }
        }
    };
    for (const std::uint16_t type : std::vector<std::uint16_t>{0x806, 0x888e, 0x88b5, 0x40, 0x800, 0x86dd}) {
        Probe probe;
        probe.frame.type = type;
        for (const std::uint16_t id : std::vector<std::uint16_t>{0, 1, 100, 4094, 7}) {
            Probe withTag = probe;
            withTag.frame.vlan = VlanTag{id, 0};
            add(withTag);
        }
        probe.hasHeader = probe.hasPorts = false;
        add(probe);
        if (type != ethertype::ip4 && type != ethertype::ip6)
            continue;
        probe.hasHeader = true;
        const std::vector<Ip4Address> ip4{{10, 0, 0, 1}, {10, 0, 0, 2}, {10, 0, 0, 9},
                                          {10, 1, 0, 1}, {10, 7, 7, 2}, {11, 0, 0, 1}};
        std::vector<Ip6Address> ip6(5);
        ip6[0] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
        ip6[1] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
        ip6[2] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
        ip6[3] = {0x20, 0x01, 0x0d, 0xb8};
        ip6[4] = {0x30};
        const std::size_t addresses = type == ethertype::ip4 ? ip4.size() : ip6.size();
        for (std::size_t from = 0; from < addresses; ++from) {
            for (std::size_t to = 0; to < addresses; ++to) {
                Probe packet = probe;
                if (type == ethertype::ip4) {
                    packet.frame.ip4Source = ip4[from];
                    packet.frame.ip4Destination = ip4[to];
                } else {
                    packet.frame.ip6Source = ip6[from];
                    packet.frame.ip6Destination = ip6[to];
                }
                for (const std::uint8_t protocol : std::vector<std::uint8_t>{6, 17, 1, 59}) {
                    packet.frame.protocol = protocol;
                    packet.hasPorts = false;
                    packet.frame.sourcePort = packet.frame.destinationPort = std::uint16_t{9};
                    add(packet);
                    packet.hasPorts = true;
                    if (protocol != 6 && protocol != 17)
                        continue;
                    for (const std::uint16_t port : std::vector<std::uint16_t>{53, 80, 65535, 9}) {
                        packet.frame.destinationPort = port;
                        add(packet);
                    }
                }
            }
        }
    }
    return kinds;
}

// What trying every frame says.
struct Tried {
    bool accepted = false;
    bool dropped = false;
    std::set<End> ends;
};

Tried tryAll(const ebtables::Table& table, std::vector<Probe>& probes, const std::string& in, const std::string& out)
{
    Tried tried;
    for (Probe& probe : probes) {
        probe.frame.in = in;
        probe.frame.out = out;
        const End end = endOf(table, probe);
        (isAccepted(end) ? tried.accepted : tried.dropped) = true;
        tried.ends.insert(end);
    }
    return tried;
}

// The chains and rules that a way can meet: what trying all frames takes its time for.
ebtables::Table restricted(const ebtables::Table& table, const std::string& in, const std::string& out)
{
    ebtables::Table result = table;
    for (ebtables::Chain& chain : result.chains) {
        for (ebtables::TableRule& rule : chain.rules) {
            if ((rule.rule->in && !matchesPort(*rule.rule->in, in)) ||
                (rule.rule->out && (out.empty() || !matchesPort(*rule.rule->out, out))))
                rule.rule->target = "CONTINUE";
        }
    }
    return result;
}

// With the rules of several, so that they meet.
Configuration denseConfiguration(unsigned seed)
{
    test::Random random(seed);
    Configuration dense = test::randomConfiguration(random, 0);
    std::int32_t id = 100;
    for (int i = 0; i < 8; ++i) {
        const Configuration more = test::randomConfiguration(random, 0);
        for (Row row : more.rows(TableId::Rules)) {
            row.set("Id", ++id);
            dense.add(std::move(row));
        }
    }
    return dense;
}

TEST(Matrix, SaysExactlyWhatTryingEveryFrameSays)
{
    constexpr int configurations = test::rounds(3);
    std::vector<Probe> probes = allProbes();
    std::size_t partly = 0;
    std::size_t uniform = 0;
    std::size_t otherwise = 0;
    for (int seed = 1; seed <= configurations; ++seed) {
        const Configuration configuration = denseConfiguration(static_cast<unsigned>(seed));
        const Applied applied = apply(expectedOf(configuration));
        const Matrix matrix = matrixOf(applied, {}, test::ports(), {});
        ASSERT_EQ(matrix.cells.size(), 9U);
        for (const MatrixCell& cell : matrix.cells) {
            const std::string in = matrix.ports[cell.in];
            const std::string out = cell.out ? matrix.ports[*cell.out] : "";
            SCOPED_TRACE("seed " + std::to_string(seed) + ", " + in + " to " + out);
            const ebtables::Table table = restricted(applied.table, in, out);
            const Tried tried = tryAll(table, probes, in, out);
            const Answered& answer = matrix.answers[cell.answer];
            EXPECT_TRUE(answer.complete);
            EXPECT_EQ(answer.passage, !tried.dropped    ? Passage::Open
                                      : !tried.accepted ? Passage::Closed
                                                        : Passage::Partly);
            std::set<std::pair<const Row*, End>> expected; // by row, or by place without one
            const auto keyOf = [&](const std::string& chain, std::size_t position, const Row* row) {
                const ebtables::Chain* place = applied.table.find(chain);
                return std::pair(row, row != nullptr ? End() : End(place, position));
            };
            for (const auto& [chain, position] : tried.ends) {
                const bool isRule = position < chain->rules.size();
                if (isAccepted({chain, position}) != (answer.ordinary.fate == Fate::Accept))
                    expected.insert(keyOf(chain->name, position,
                                          applied.rowOf(isRule ? chain->rules[position].origin : chain->policyOrigin)));
            }
            std::set<std::pair<const Row*, End>> found;
            for (const Decider& decider : answer.otherwise)
                found.insert(keyOf(decider.chain->name, decider.position, applied.rowOf(decider.origin())));
            EXPECT_EQ(found, expected);
            EXPECT_EQ(answer.otherwise.size(), expected.size());
            ++(answer.passage == Passage::Partly ? partly : uniform);
            otherwise += expected.size();
            // The ordinary frame is decided about as by explain.
            Frame ordinary = *matrix.ordinary;
            ordinary.in = in;
            ordinary.out = out;
            const Walk walked = walk(applied.table, ordinary);
            EXPECT_EQ(walked.fate, answer.ordinary.fate);
            EXPECT_EQ(walked.steps.back().position, answer.ordinary.position);
            EXPECT_EQ(walked.steps.back().chain, answer.ordinary.chain);
        }
    }
    EXPECT_GT(partly, 3U * configurations);
    if (configurations > 1) { // one may be alike everywhere
        EXPECT_GT(uniform, 3U);
    }
    EXPECT_GT(otherwise, 10U * configurations);
}

} // namespace
