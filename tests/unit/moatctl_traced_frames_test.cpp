#include "moatctl/bridge/traced_frames.hpp"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using moatctl::Frame;
using moatctl::TracedFrame;
using nftables::TraceEvent;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

constexpr const char* ourTable = "moatctl_trace_1";
const std::vector<std::uint8_t> headerBytes{2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x88, 0xb6};

TraceEvent heardOf(std::uint32_t id, const char* table, const char* chain, std::uint64_t rule,
                   TraceEvent::Verdict verdict = TraceEvent::Verdict::GoesOn)
{
    TraceEvent made;
    made.id = id;
    made.table = table;
    made.chain = chain;
    made.rule = rule;
    made.verdict = verdict;
    return made;
}

TraceEvent withHeaders(TraceEvent made, std::uint8_t source = 1)
{
    made.link = headerBytes;
    made.link[11] = source;
    return made;
}

class TracedFramesTest : public testing::Test
{
protected:
    void take(const TraceEvent& made) { m_traced.take(made, m_now, m_frames); }

    void choose(std::uint32_t id, std::uint8_t source = 1)
    {
        take(withHeaders(heardOf(id, ourTable, "select", 2), source));
    }

    moatctl::TracedFrames m_traced{ourTable};
    moatctl::TracedFrames::Time m_now{std::chrono::seconds(10)};
    std::vector<TracedFrame> m_frames;
};

TEST_F(TracedFramesTest, TheRuleWithAVerdictDecides)
{
    choose(7);
    take(withHeaders(heardOf(7, "filter", "FORWARD", 3)));
    take(heardOf(7, "filter", "UserForwardRules", 4, TraceEvent::Verdict::Drop));
    ASSERT_THAT(m_frames, SizeIs(1));
    EXPECT_FALSE(m_frames[0].accepted);
    EXPECT_EQ(m_frames[0].chain, "UserForwardRules");
    EXPECT_EQ(m_frames[0].rule, 4U);
    EXPECT_EQ(m_frames[0].frame.source, (moatctl::MacAddress{2, 0, 0, 0, 0, 1}));
    take(heardOf(7, "filter", "FORWARD", 0, TraceEvent::Verdict::Accept));
    EXPECT_THAT(m_frames, SizeIs(1)) << "what comes later is nobody's";
}

TEST_F(TracedFramesTest, FramesThatOthersChoseAreNone)
{
    take(withHeaders(heardOf(7, ourTable, "forward", 5)));
    take(heardOf(7, ourTable, "select", 0)); // the end of the chain
    take(withHeaders(heardOf(7, "filter", "FORWARD", 3, TraceEvent::Verdict::Drop)));
    EXPECT_THAT(m_frames, IsEmpty());
}

TEST_F(TracedFramesTest, AnotherTableStopsAFrameButLetsNoneThrough)
{
    choose(7);
    take(withHeaders(heardOf(7, "theirs", "c", 1, TraceEvent::Verdict::Accept)));
    EXPECT_THAT(m_frames, IsEmpty());
    take(withHeaders(heardOf(7, "theirs", "d", 1, TraceEvent::Verdict::Drop)));
    ASSERT_THAT(m_frames, SizeIs(1));
    EXPECT_EQ(m_frames[0].table, "theirs");
}

TEST_F(TracedFramesTest, InTheCompiledFormItsTableDecides)
{
    m_traced.setFilter("moatkeeper");
    choose(7);
    take(withHeaders(heardOf(7, "filter", "FORWARD", 0, TraceEvent::Verdict::Accept)));
    EXPECT_THAT(m_frames, IsEmpty()) << "it is empty then";
    take(withHeaders(heardOf(7, "moatkeeper", "FORWARD/p1/p2", 5, TraceEvent::Verdict::Drop)));
    ASSERT_THAT(m_frames, SizeIs(1));
    EXPECT_FALSE(m_frames[0].accepted);
    EXPECT_EQ(m_frames[0].table, "moatkeeper");
}

TEST_F(TracedFramesTest, ANumberIsUsedAgain)
{
    choose(7, 1);
    choose(7, 9); // nothing was heard of the one before any more
    take(withHeaders(heardOf(7, "filter", "FORWARD", 3, TraceEvent::Verdict::Accept), 9));
    ASSERT_THAT(m_frames, SizeIs(1));
    EXPECT_EQ((*m_frames[0].frame.source)[5], 9);
}

TEST_F(TracedFramesTest, WhatIsLeftOfTwoFramesIsNotOne)
{
    choose(7, 1);
    take(withHeaders(heardOf(7, "filter", "FORWARD", 3, TraceEvent::Verdict::Drop), 9));
    EXPECT_THAT(m_frames, IsEmpty());
    choose(8, 1);
    take(heardOf(8, "filter", "UserForwardRules", 4, TraceEvent::Verdict::Drop));
    EXPECT_THAT(m_frames, IsEmpty());
}

TEST_F(TracedFramesTest, SilenceMeansThatNoRuleLooked)
{
    choose(7);
    m_traced.settle(m_now, false, m_frames);
    EXPECT_THAT(m_frames, IsEmpty()) << "it is not long ago";
    m_traced.settle(m_now + std::chrono::seconds(1), false, m_frames);
    ASSERT_THAT(m_frames, SizeIs(1));
    EXPECT_TRUE(m_frames[0].accepted);
    EXPECT_EQ(m_frames[0].table, "");
    choose(8);
    m_traced.settle(m_now + std::chrono::seconds(1), true, m_frames);
    EXPECT_THAT(m_frames, SizeIs(1)) << "unless messages were lost";
}

TEST_F(TracedFramesTest, HeadersSayWhatTheyCan)
{
    TraceEvent made = withHeaders(heardOf(1, ourTable, "select", 2));
    made.link[12] = 0x08;
    made.link[13] = 0x00;
    made.network = {0x45, 0, 0, 40, 0, 0, 0, 0, 64, 17, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2};
    made.transport = {0x9c, 0x40, 0, 53};
    Frame frame = moatctl::frameOf(made);
    EXPECT_EQ(frame.ip4Destination, (moatctl::Ip4Address{10, 0, 0, 2}));
    EXPECT_EQ(frame.sourcePort, 40000);
    EXPECT_EQ(frame.destinationPort, 53);

    made.network[7] = 1; // a later fragment
    frame = moatctl::frameOf(made);
    EXPECT_TRUE(frame.laterFragment);
    EXPECT_FALSE(frame.destinationPort);

    made.link = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x81, 0, 0xa0, 5, 0x86, 0xdd};
    frame = moatctl::frameOf(made);
    EXPECT_EQ(frame.vlan->id, 5);
    EXPECT_EQ(frame.vlan->priority, 5);
    EXPECT_EQ(frame.type, moatctl::ethertype::ip6);
    EXPECT_FALSE(frame.ip6Source) << "the bytes end before it";

    for (std::size_t size = 0; size < 18; ++size) { // whatever is cut off
        made.link.resize(size);
        made.network.resize(std::min<std::size_t>(size, made.network.size()));
        moatctl::frameOf(made);
    }
}

} // namespace
