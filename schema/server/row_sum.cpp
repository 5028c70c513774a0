#include "schema/server/row_sum.hpp"

#include "schema/history.hpp"
#include "schema/tables.hpp"

#include <charconv>

namespace schema
{

namespace
{

// FNV-1a, and at the end a mix of all bits: sums of plain FNV-1a are equal too easily.
class Hash
{
public:
    void add(std::string_view text)
    {
        for (const char c : text)
            addByte(static_cast<unsigned char>(c));
        addByte(0); // no text has that
    }

    std::uint64_t mixed() const
    {
        std::uint64_t value = m_value;
        value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
        value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
        return value ^ (value >> 31U);
    }

private:
    void addByte(unsigned char byte) { m_value = (m_value ^ byte) * 0x100000001b3U; }

    std::uint64_t m_value = 0xcbf29ce484222325U;
};

constexpr std::size_t digits = 16;

template <typename Values>
std::uint64_t sumOfValues(const ovsdb::Table& table, const Values& values)
{
    if (findTable(table.name) == nullptr)
        return 0;
    Hash hash;
    hash.add(table.name);
    for (std::size_t i = 0; i < values.size(); ++i) {
        const tessera::Value& value = values[i];
        if (value == table.columns[i].ifUnset)
            continue;
        hash.add(table.columns[i].name);
        hash.add(value.isText() ? value.getText() : std::to_string(value.getInteger()));
    }
    return hash.mixed();
}

} // namespace

std::uint64_t sumOf(const ovsdb::Table& table, const ovsdb::RowValues& values)
{
    return sumOfValues(table, values);
}

std::uint64_t sumOf(const ovsdb::Table& table, const std::vector<tessera::Value>& values)
{
    return sumOfValues(table, values);
}

std::uint64_t sumOf(const ovsdb::TableCache& state)
{
    std::uint64_t sum = 0;
    for (const Table& table : allTables()) {
        for (const ovsdb::Row& row : state.rows(table.name))
            sum += sumOf(*state.find(table.name), row.values);
    }
    return sum;
}

std::uint64_t sumOf(const std::vector<RecordedChange>& changes)
{
    std::uint64_t sum = 0;
    for (const RecordedChange& change : changes) {
        sum += change.after ? sumOf(*change.table, *change.after) : 0;
        sum -= change.before ? sumOf(*change.table, *change.before) : 0;
    }
    return sum;
}

std::string sumText(std::uint64_t sum)
{
    std::string text(digits, '0');
    for (std::size_t i = 0; i < digits; ++i, sum >>= 4U)
        text[digits - 1 - i] = "0123456789abcdef"[sum & 0xfU];
    return text;
}

std::optional<std::uint64_t> parseSum(std::string_view text)
{
    std::uint64_t sum = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), sum, 16);
    if (text.size() != digits || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return sum;
}

NewestEntry newestEntry(const ovsdb::TableCache& state)
{
    NewestEntry newest;
    const ovsdb::Table* table = state.find(historyTable);
    for (const ovsdb::Row& row : state.rows(historyTable)) {
        const std::int32_t number = ovsdb::TableCache::value(*table, row, history::number)->getInteger();
        if (number > newest.number)
            newest = {number, parseSum(ovsdb::TableCache::value(*table, row, history::sum)->getText())};
    }
    return newest;
}

std::uint64_t sumAfter(const ovsdb::TableCache& state, const std::vector<RecordedChange>& changes)
{
    const std::optional<std::uint64_t> known = newestEntry(state).sum;
    return (known ? *known : sumOf(state)) + sumOf(changes);
}

} // namespace schema
