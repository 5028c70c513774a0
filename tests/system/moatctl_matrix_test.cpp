// What moatctl matrix says, against what the kernel does with random frames for each cell. MOATKEEPER_CONFIGURATIONS in
// the environment says how many random configurations, MOATKEEPER_SEED the first of them.
#include "moatctl/bridge/matrix.hpp"
#include "moatctl/bridge/walk.hpp"
#include "moatctl/command_line/frame_options.hpp"
#include "tests/moatctl/kernel_bridge.hpp"
#include "tests/moatctl/kernel_lab.hpp"
#include "tests/moatctl/random_configuration.hpp"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>

namespace
{

using namespace moatctl;

constexpr int framesEach = 50;

unsigned fromEnvironment(const char* name, unsigned otherwise)
{
    const char* text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

Frame randomFrameFor(test::Random& random, const std::string& in, const std::string& out)
{
    Frame frame = test::randomFrame(random);
    frame.in = in;
    frame.out = out;
    frame.destination = test::bridgeAddress;
    for (std::size_t i = 0; i < test::ports().size(); ++i) {
        if (test::ports()[i] == out)
            frame.destination = MacAddress{2, 0, 0, 0, 0, static_cast<std::uint8_t>(i + 1)};
    }
    return frame;
}

using MatrixAgreesWithTheKernel = test::KernelBridge;

TEST_F(MatrixAgreesWithTheKernel, OverRandomConfigurationsAndFrames)
{
    const unsigned configurations = fromEnvironment("MOATKEEPER_CONFIGURATIONS", 10);
    const unsigned first = fromEnvironment("MOATKEEPER_SEED", 1);
    std::array<int, 4> cells{}; // by passage
    for (unsigned seed = first; seed < first + configurations; ++seed) {
        test::Random random(seed);
        const Expected lines = expectedOf(test::randomConfiguration(random, 0));
        const Applied applied = apply(lines);
        ASSERT_EQ(test::restore(lines), "") << "seed " << seed;
        const Matrix matrix = matrixOf(applied, {}, test::ports(), {});
        for (const MatrixCell& cell : matrix.cells) {
            const std::string in = matrix.ports[cell.in];
            const std::string out = cell.out ? matrix.ports[*cell.out] : "";
            const Passage passage = matrix.answers[cell.answer].passage;
            const test::Seen before = seen();
            std::uint64_t passing = 0;
            for (int i = 0; i < framesEach; ++i) {
                const Frame frame = randomFrameFor(random, in, out);
                test::Bytes bytes = test::bytesOf(frame, false);
                passing += walk(applied.table, frame).fate == Fate::Accept ? 1 : 0;
                // The walk does not know packets that are cut off, the matrix does. A tag must stay whole.
                if (passage != Passage::Partly && random.oneIn(8))
                    bytes.resize(20 + static_cast<std::size_t>(random.number(0, 48)));
                send(in, bytes);
            }
            if (passage == Passage::Open)
                passing = framesEach;
            if (passage == Passage::Closed)
                passing = 0;
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (seen().arrived != before.arrived + framesEach && std::chrono::steady_clock::now() < deadline) {
            }
            const test::Seen after = seen();
            ASSERT_EQ(after.arrived, before.arrived + framesEach);
            ASSERT_EQ(after.forwarded - before.forwarded, out.empty() ? 0 : passing)
                << "seed " << seed << ", " << in << " to " << out << ", said to be " << static_cast<int>(passage);
            ASSERT_EQ(after.delivered - before.delivered, out.empty() ? passing : 0)
                << "seed " << seed << ", " << in << ", said to be " << static_cast<int>(passage);
            ++cells[static_cast<std::size_t>(passage)];
        }
    }
    std::cout << configurations << " configurations, " << framesEach << " frames for each cell: " << cells[0]
              << " cells open, " << cells[1] << " closed, " << cells[2] << " partly\n";
    EXPECT_GT(cells[0], 0);
    EXPECT_GT(cells[1], 0);
    EXPECT_GT(cells[2], 0);
    EXPECT_EQ(cells[3], 0);
}

} // namespace
