#include "records/text_store.hpp"

#include <gtest/gtest.h>

#include <memory>

using zol::moatkeeper::TextStore;

TEST(TextStore, GivesBackWhatWasAdded)
{
    TextStore store(4);
    const TextStore::Text first = store.add({"one"});
    const TextStore::Text empty = store.add({});
    const TextStore::Text joined = store.add({"two ", "", "and a half, ", "which is longer than the room made for it"});
    EXPECT_EQ(store[first], "one");
    EXPECT_EQ(store[empty], "");
    EXPECT_EQ(store[joined], "two and a half, which is longer than the room made for it");
    EXPECT_EQ(store[TextStore::Text()], "");
}

TEST(TextStore, CopiesAreOnTheirOwn)
{
    auto store = std::make_unique<TextStore>(100);
    const TextStore::Text text = store->add({"a text that is not short enough to be kept in place"});
    const TextStore copy = *store;
    store->add({"more"});
    store.reset();
    EXPECT_EQ(copy[text], "a text that is not short enough to be kept in place");
}
