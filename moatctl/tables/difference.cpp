#include "moatctl/tables/difference.hpp"

#include "moatctl/tables/problem.hpp"

namespace moatctl
{

namespace
{

std::string changesOf(const Row& before, const Row& after)
{
    std::string text;
    for (std::size_t i = 0; i < before.values.size(); ++i) {
        if (before.values[i] == after.values[i])
            continue;
        text += (text.empty() ? "" : ", ") + std::string(before.table->columns[i].name) + ' ' +
                inQuotes(before.values[i]) + " -> " + inQuotes(after.values[i]);
    }
    return text;
}

} // namespace

std::string valuesOf(const Row& row)
{
    std::string text;
    for (std::size_t i = row.table->hasIds() ? 1 : 0; i < row.values.size(); ++i) {
        if (!row.table->columns[i].required && row.table->hasIds() &&
            row.values[i] == row.table->columns[i].defaultValue())
            continue;
        text += (text.empty() ? "" : ", ") + std::string(row.table->columns[i].name) + ' ' + inQuotes(row.values[i]);
    }
    return text;
}

std::vector<Change> difference(const Configuration& before, const Configuration& after)
{
    std::vector<Change> changes;
    for (const schema::Table& table : schema::allTables()) {
        const std::vector<Row>& old = before.rows(table.id);
        const std::vector<Row>& fresh = after.rows(table.id);
        auto left = old.begin();
        auto right = fresh.begin();
        while (left != old.end() || right != fresh.end()) {
            if (right == fresh.end() || (left != old.end() && left->id() < right->id())) {
                changes.push_back({&table, left->id(), &*left, nullptr});
                ++left;
            } else if (left == old.end() || right->id() < left->id()) {
                changes.push_back({&table, right->id(), nullptr, &*right});
                ++right;
            } else {
                if (*left != *right)
                    changes.push_back({&table, left->id(), &*left, &*right});
                ++left;
                ++right;
            }
        }
    }
    return changes;
}

std::string toText(const Change& change)
{
    std::string text = change.before == nullptr ? "+ " : change.after == nullptr ? "- " : "~ ";
    text += change.table->name;
    if (change.table->hasIds())
        text += " Id " + std::to_string(change.id);
    text += ": ";
    if (change.before == nullptr)
        return text + valuesOf(*change.after);
    if (change.after == nullptr)
        return text + valuesOf(*change.before);
    return text + changesOf(*change.before, *change.after);
}

} // namespace moatctl
