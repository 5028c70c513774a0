#include "platform/value_list.hpp"

#include <gtest/gtest.h>

using tessera::NameList;
using tessera::Value;
using tessera::ValueList;

namespace
{

NameList namesOf(const ValueList& values)
{
    NameList names = {"what was there"};
    values.getNames(names);
    return names;
}

} // namespace

TEST(ValueList, HoldsEachNameOnceInTheOrderOfTheFirst)
{
    ValueList values;
    values.setValue("Id", Value(1));
    values.setValue("Name", Value("a"));
    values.setValue("Id", Value(2));
    EXPECT_EQ(namesOf(values), (NameList{"Id", "Name"}));
    EXPECT_EQ(values.getValue("Id").getInteger(), 2);
    EXPECT_EQ(values.getValue("Name").getText(), "a");
}

TEST(ValueList, KeepsNothingWhenItIsCleared)
{
    ValueList values;
    values.setValue("Id", Value(1));
    values.setValue("Name", Value("a"));
    values.clear();
    EXPECT_EQ(namesOf(values), NameList{});
    EXPECT_EQ(values.getValue("Id"), Value());

    // The next row may have fewer columns, others, or the same in another order.
    values.setValue("Id", Value(2));
    EXPECT_EQ(namesOf(values), (NameList{"Id"}));
    EXPECT_EQ(values.getValue("Name").getText(), "");
    values.setValue("Other", Value("b"));
    values.setValue("Name", Value("c"));
    EXPECT_EQ(namesOf(values), (NameList{"Id", "Other", "Name"}));
    values.clear();
    values.setValue("Name", Value("d"));
    values.setValue("Id", Value(3));
    values.setValue("Name", Value("e"));
    EXPECT_EQ(namesOf(values), (NameList{"Name", "Id"}));
    EXPECT_EQ(values.getValue("Name").getText(), "e");
    EXPECT_EQ(values.getValue("Id").getInteger(), 3);
}

TEST(ValueList, TakesAValueOfItsOwn)
{
    ValueList values;
    values.setValue("a", Value("a text that is too long to stay inside of a string"));
    for (const char* name : {"b", "c", "d", "e", "f"})
        values.setValue(name, values.getValue("a"));
    EXPECT_EQ(values.getValue("f"), values.getValue("a"));
}

TEST(ValueList, HasCopiesOfTheirOwn)
{
    ValueList values;
    values.setValue("Id", Value(1));
    ValueList copy = values;
    copy.setValue("Id", Value(2));
    EXPECT_EQ(values.getValue("Id").getInteger(), 1);
    values.clear();
    EXPECT_EQ(copy.getValue("Id").getInteger(), 2);
}
