#include "ovsdb/json.hpp"

#include <gtest/gtest.h>

namespace
{

using ovsdb::Json;
using ovsdb::JsonError;
using ovsdb::parseJson;
using ovsdb::toText;

struct RefusedText {
    std::string text;
    std::string reason; // part of the message
};

const RefusedText refusedTexts[] = {
    {"", "empty"},
    {"   ", "empty"},
    {"{", ""},
    {"[1,]", ""},
    {"{\"a\" 1}", ""},
    {"{\"a\":1,\"a\":2}", "member \"a\" twice"},
    {"{\"x\":{\"b\":1,\"c\":2,\"b\":3}}", "member \"b\" twice"},
    {"{} {}", ""},
    {std::string("1\0 2", 4), "behind"},
    {"[[[[[1]]]]]", "more than 4 levels"},
    {"[1,2,3,4,5,6,7,8,9,10]", "more than 10 values"},
    {"\"\xc3\x28\"", ""},
    {"\"a\nb", ""},
    {"1 // one", ""},
    {"nul", ""},
    {"'a'", ""},
    {"NaN", ""},
    {"\"\\ud800\"", ""},
};

TEST(OvsdbJsonTest, RefusesAndSaysWhy)
{
    for (const auto& [text, reason] : refusedTexts) {
        try {
            parseJson(text, {.depth = 4, .values = 10});
            ADD_FAILURE() << "accepted: " << text;
        } catch (const JsonError& e) {
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << text << ": " << e.what();
            EXPECT_LE(e.offset(), text.size()) << text;
        }
    }
}

TEST(OvsdbJsonTest, KindsAndValues)
{
    const Json value =
        parseJson(R"( {"i": -9223372036854775808, "d": 1.5, "t": "a\u00e9\"", "l": [true, null], "o": {}} )");
    EXPECT_EQ(value.find("i")->asInteger(), INT64_MIN);
    EXPECT_EQ(value.find("d")->asDouble(), 1.5);
    EXPECT_FALSE(value.find("d")->asInteger().has_value());
    EXPECT_EQ(*value.find("t")->asText(), "a\xc3\xa9\"");
    EXPECT_EQ((*value.find("l")->asArray())[0].asBool(), true);
    EXPECT_TRUE((*value.find("l")->asArray())[1].isNull());
    EXPECT_STREQ(value.find("o")->kindName(), "an object");
    EXPECT_EQ(value.find("x"), nullptr);
    EXPECT_FALSE(parseJson("18446744073709551615").asInteger().has_value());
}

TEST(OvsdbJsonTest, WritesWhatItReads)
{
    const std::string text = R"({"a":[1,-2,"x\n\"",true,null,{"b":[]}],"c":0.5})";
    EXPECT_EQ(toText(parseJson(text)), text);
    EXPECT_EQ(parseJson(toText(parseJson(text))), parseJson(text));
}

TEST(OvsdbJsonTest, CommentsWhereAllowed)
{
    EXPECT_EQ(toText(parseJson("/* rules */ [1, // one\n 2]", {.comments = true})), "[1,2]");
}

TEST(OvsdbJsonTest, AValueKnowsWhereItStood)
{
    const std::string text = "{\n  \"a\": 1,\n  \"b\": {\n    \"c\": \"x\"\n  }\n}";
    const Json value = parseJson(text);
    EXPECT_EQ(value.find("a")->offset(), text.find('1'));
    EXPECT_EQ(value.find("b")->offset(), text.find('{', 1)) << "the bracket itself";
    EXPECT_EQ(value.find("b")->find("c")->offset(), text.find("x\"") + 1) << "the last byte";
}

} // namespace
