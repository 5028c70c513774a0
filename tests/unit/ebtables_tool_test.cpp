#include "platform_linux/queue/tool.hpp"
#include "tests/unit/scripted_tool.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ebtables::Variant;
using testing::EndsWith;
using testing::HasSubstr;

namespace
{

TEST(ToolTest, AMissingProgramIsNamedWithItsPackage)
{
    const ebtables::RunResult result = ebtables::runTool("/no/such/ebtables", {}, "");
    EXPECT_EQ(result.end, ebtables::RunResult::End::NotStarted);
    EXPECT_EQ(result.reason, "cannot start /no/such/ebtables: No such file or directory; install the package ebtables");
}

TEST(ToolVersionTest, TheToolSaysWhichOneItIs)
{
    const ScriptedTool tool;
    EXPECT_EQ(ebtables::detect(tool.paths()).variant, Variant::NfTables);
    EXPECT_EQ(ebtables::detect(tool.paths()).text, "ebtables 1.8.9 (nf_tables)");
    tool.onVersion("echo 'ebtables v2.0.10.4 (legacy) (December 2011)'; echo more");
    EXPECT_EQ(ebtables::detect(tool.paths()).variant, Variant::Legacy);
    EXPECT_EQ(ebtables::detect(tool.paths()).text, "ebtables v2.0.10.4 (legacy) (December 2011)");
}

TEST(ToolVersionTest, WhatItDoesNotSayIsUnknown)
{
    const ScriptedTool tool;
    tool.onVersion("echo something else; echo 'an \"error\"' >&2");
    ebtables::ToolVersion version = ebtables::detect(tool.paths());
    EXPECT_EQ(version.variant, Variant::Unknown);
    EXPECT_THAT(version.reason, EndsWith("ebtables --version ended with status 0 and names no variant: "
                                         "\"something else\\x0aan \"error\"\\x0a\""));
    tool.onVersion("echo ebtables v2; exit 1");
    EXPECT_EQ(ebtables::detect(tool.paths()).variant, Variant::Unknown);
    tool.onVersion("kill -9 $$");
    version = ebtables::detect(tool.paths());
    EXPECT_EQ(version.variant, Variant::Unknown);
    EXPECT_THAT(version.reason, HasSubstr("was killed by signal 9"));
}

} // namespace
