#include "moatctl/tables/table_names.hpp"

#include "text/one_line.hpp"

#include <algorithm>
#include <cctype>

namespace moatctl
{

namespace
{

bool equalIgnoringCase(std::string_view a, std::string_view b)
{
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

} // namespace

const schema::Table* findTable(std::string_view nameOrWord)
{
    if (const schema::Table* table = schema::findTable(nameOrWord))
        return table;
    for (const schema::Table& table : schema::allTables()) {
        if (equalIgnoringCase(table.name, nameOrWord) || equalIgnoringCase(table.word, nameOrWord))
            return &table;
    }
    return nullptr;
}

std::string wrongTable(const std::string& nameOrWord)
{
    if (findTable(nameOrWord) != nullptr)
        return "";
    return text::inQuotes(nameOrWord) + ": expected global, policy, forward-policy, rule, filter or filter-rule";
}

} // namespace moatctl
