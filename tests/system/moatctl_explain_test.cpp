// What moatctl explain says, against what the kernel does: for every frame, which rules match and what becomes of it.
#include "ebtables/table.hpp"
#include "moatctl/bridge/expected.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "tests/moatctl/kernel_bridge.hpp"
#include "tests/moatctl/kernel_lab.hpp"
#include "tests/moatctl/random_configuration.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>

namespace
{

using namespace moatctl;
// How often each rule matched, by chain and position; and how many frames came in and got through.
struct Counts {
    std::map<std::pair<std::string, std::size_t>, std::uint64_t> rules;
    test::Seen seen;
    bool operator==(const Counts&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Counts& counts)
{
    for (const auto& [place, count] : counts.rules) {
        if (count != 0)
            out << place.first << " rule " << place.second + 1 << ": " << count << ", ";
    }
    return out << "forwarded " << counts.seen.forwarded << ", delivered " << counts.seen.delivered;
}

class ExplainAgreesWithTheKernel : public test::KernelBridge
{
protected:
    static Counts counts()
    {
        Counts result;
        result.seen = seen();
        const ebtables::Table table = ebtables::parseSaved(test::runOrFail("/usr/sbin/ebtables-save", {"-c"}));
        for (const ebtables::Chain& chain : table.chains) {
            for (std::size_t i = 0; i < chain.rules.size(); ++i)
                result.rules[{chain.name, i}] = chain.rules[i].counters.value().packets;
        }
        return result;
    }

    // The counters when this many frames have come in and the last one is through.
    static Counts countsAfter(std::uint64_t arrived)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (counts().seen.arrived != arrived && std::chrono::steady_clock::now() < deadline) {
        }
        return counts(); // once more: it may have come in between two of the counters
    }

    // The ways that the bridge sends a frame to this destination.
    static std::vector<std::string> waysOf(const Frame& frame)
    {
        if (frame.destination == test::bridgeAddress || frame.destination == MacAddress{0x01, 0x80, 0xc2, 0, 0, 3})
            return {""};
        if (((*frame.destination)[0] & 1U) == 0)
            return {test::ports()[(*frame.destination)[5] - 1U]};
        std::vector<std::string> ways{""};
        for (const std::string& port : test::ports()) {
            if (port != frame.in)
                ways.push_back(port);
        }
        return ways;
    }

    static void expectWalk(Counts& expected, const ebtables::Table& table, Frame frame, const std::string& out)
    {
        frame.out = out;
        const Walk walked = walk(table, frame);
        for (const Step& step : walked.steps) {
            if (step.rule != nullptr && step.result.answer == Answer::Yes)
                ++expected.rules[{step.chain->name, step.position}];
        }
        ASSERT_NE(walked.fate, Fate::Unknown);
        if (walked.fate == Fate::Accept)
            ++(out.empty() ? expected.seen.delivered : expected.seen.forwarded);
    }
};

// A destination of every kind that the bridge treats differently.
void turnDestination(test::Random& random, Frame& frame)
{
    static const std::vector<MacAddress> groups{{0xff, 0xff, 0xff, 0xff, 0xff, 0xff},
                                                {0x33, 0x33, 0, 0, 0, 1},
                                                {0x01, 0, 0x5e, 0, 0, 1},
                                                {0x01, 0x80, 0xc2, 0, 0, 0},
                                                {0x01, 0x80, 0xc2, 0, 0, 3}};
    if (random.oneIn(3)) {
        frame.destination = random.pick(groups);
        return;
    }
    // The bridge sends no frame back out of its port.
    while ((*frame.destination)[5] <= test::ports().size() && test::ports()[(*frame.destination)[5] - 1U] == frame.in)
        (*frame.destination)[5] = static_cast<std::uint8_t>(random.number(1, 4));
}

TEST_F(ExplainAgreesWithTheKernel, OverRandomConfigurationsAndFrames)
{
    constexpr unsigned configurations = 40;
    constexpr int framesEach = 12;
    Counts total;
    for (unsigned seed = 1; seed <= configurations; ++seed) {
        test::Random random(seed);
        const Configuration configuration = test::randomConfiguration(random, 0);
        const Expected lines = expectedOf(configuration);
        const Applied applied = apply(lines);
        ASSERT_EQ(test::restore(lines), "") << "seed " << seed;
        Counts before = counts();
        for (int i = 0; i < framesEach; ++i) {
            Frame frame = test::randomFrame(random);
            turnDestination(random, frame);
            Counts expected = before;
            ++expected.seen.arrived;
            for (const std::string& out : waysOf(frame))
                expectWalk(expected, applied.table, frame, out);
            const bool optionsHeader = random.oneIn(4) && frame.protocol != ipProtocol::ip6NoNext;
            send(frame.in, test::bytesOf(frame, optionsHeader));
            const Counts after = countsAfter(expected.seen.arrived);
            ASSERT_EQ(after, expected) << "seed " << seed << ", " << toText(frame) << "; before: " << before;
            before = after;
        }
        total.seen = before.seen;
    }
    // All fates came up.
    EXPECT_GE(total.seen.arrived, 300U);
    EXPECT_GT(total.seen.forwarded, 50U);
    EXPECT_GT(total.seen.delivered, 50U);
    std::cout << total.seen.arrived << " frames, " << total << '\n';
}

} // namespace
