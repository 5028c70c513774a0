#include "records/text_store.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

using Store = zol::moatkeeper::TextStore<3>;

TEST(TextStore, GivesBackWhatWasAdded)
{
    using namespace std::string_view_literals;
    Store store(4);
    EXPECT_EQ(store[0], "");
    store.add({"one", "", "\0two"sv});
    store.add({});
    store.add({std::string(100'000, 'x')});
    EXPECT_EQ(store[0], "one\0two"sv);
    EXPECT_EQ(store[1], "");
    EXPECT_EQ(store[2], std::string(100'000, 'x'));
    EXPECT_EQ(store[3], "");
    EXPECT_THROW(store.add({"four"}), std::out_of_range);
}

TEST(TextStore, CopiesAreOnTheirOwn)
{
    Store first(0);
    first.add({"a"});
    Store second = first;
    second.add({"b"});
    EXPECT_EQ(first[1], "");
    EXPECT_EQ(second[0], "a");
    EXPECT_EQ(second[1], "b");
    first = second;
    EXPECT_EQ(first[1], "b");
}

TEST(TextStore, ComparesTheFirstTextsOnly)
{
    const auto store = [](std::string_view one, std::string_view two, std::string_view three) {
        Store result(8);
        result.add({one});
        result.add({two});
        result.add({three});
        return result;
    };
    EXPECT_TRUE(store("a", "b", "c").startsLike(store("a", "b", "d"), 2));
    EXPECT_TRUE(store("", "", "c").startsLike(store("", "", ""), 2));
    EXPECT_FALSE(store("a", "b", "c").startsLike(store("a", "b", "d"), 3));
    EXPECT_FALSE(store("ab", "", "").startsLike(store("a", "b", ""), 2)); // the same bytes, cut elsewhere
    EXPECT_FALSE(store("a", "b", "").startsLike(store("a", "B", ""), 2));
}
