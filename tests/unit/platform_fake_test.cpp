#include "platform/sysloglevel.h"
#include "platform_fake/captured_log.hpp"
#include "platform_fake/journal.hpp"
#include "platform_fake/memory_tables.hpp"
#include "platform_fake/recording_queue.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

TEST(MemoryTables, DeliversRowsInTheOrderGiven)
{
    fake::MemoryTables tables;
    tables.setRows("T", {fake::Row().set("Id", 2).set("Text", "a").set("Id", 5), fake::Row().set("Id", 1)});
    std::uint32_t count = 0;
    EXPECT_TRUE(tables.getRowCount("T", count).ok);
    EXPECT_EQ(count, 2U);
    tessera::NameList names;
    tessera::ValueList values;
    EXPECT_TRUE(tables.readRow("T", 0, names, values).ok);
    EXPECT_EQ(names, (tessera::NameList{"Id", "Text"}));
    EXPECT_EQ(values.getValue("Id").getInteger(), 5);
    EXPECT_EQ(values.getValue("Text").getText(), "a");
    EXPECT_EQ(values.getValue("Other").getText(), "");
}

TEST(MemoryTables, LeavesTheAnswerAloneWhenItHasNone)
{
    fake::MemoryTables tables;
    tables.addRow("T", fake::Row().set("Id", 1));
    std::uint32_t count = 7;
    EXPECT_FALSE(tables.getRowCount("U", count).ok);
    EXPECT_EQ(count, 7U);
    tessera::NameList names = {"held"};
    tessera::ValueList values;
    EXPECT_FALSE(tables.readRow("T", 1, names, values).ok);
    EXPECT_EQ(names.size(), 1U);
    tables.onReadRow = [](const std::string&, std::uint32_t) { return zol::cfg::ConfigStatus{false, "no"}; };
    EXPECT_FALSE(tables.readRow("T", 0, names, values).ok);
    tables.removeTable("T");
    EXPECT_EQ(tables.rows("T"), nullptr);
}

TEST(RecordingQueue, RecordsCallsUnlessAHookThrows)
{
    fake::RecordingQueue queue;
    queue.addCommand("a");
    queue.processResult = 3;
    EXPECT_EQ(queue.process(), 3);
    queue.onAddCommand = [](const std::string&) { throw std::runtime_error("full"); };
    EXPECT_THROW(queue.addCommand("b"), std::runtime_error);
    EXPECT_EQ(queue.lines(), std::vector<std::string>{"a"});
    EXPECT_EQ(queue.takeCalls(), (std::vector{fake::QueueCall::add("a"), fake::QueueCall::process()}));
    EXPECT_TRUE(queue.calls().empty());
}

TEST(CapturedLog, KeepsLinesAndModules)
{
    fake::CapturedLog& log = fake::capturedLog();
    log.reset();
    const auto module = ZOL_Sysloglevel_registerModul("m");
    EXPECT_EQ(ZOL_Sysloglevel_registerModul("m"), module);
    EXPECT_NE(ZOL_Sysloglevel_registerModul("n"), module);
    EXPECT_EQ(log.registrations("m"), 2U);
    EXPECT_EQ(log.registrations("x"), 0U);
    EXPECT_EQ(log.moduleName(module), "m");
    EXPECT_EQ(log.moduleName(99), "");
    ZOL_Sysloglevel_error(module, "label", 3, "text");
    EXPECT_EQ(log.takeLines(), (std::vector<fake::LogLine>{{fake::LogLevel::error, module, "label", 3, "text"}}));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Formatter, GivesTextsOfAnyLength)
{
    EXPECT_EQ(VAStr("%s: %d|%ld", "a", -1, 2L), "a: -1|2");
    const std::string text(100000, 'x');
    EXPECT_EQ(VAStr("%s", text.c_str()), text);
    EXPECT_EQ(VAStr("%s", ""), "");
}

TEST(Journal, RecordsOnlyWhenOn)
{
    fake::journal().record(true);
    fake::journal().note({"a", "b"});
    fake::journal().record(false);
    fake::journal().note({"c"});
    EXPECT_EQ(fake::journal().lines(), std::vector<std::string>{"ab"});
}
