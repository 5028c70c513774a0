// One row of a configuration table: column names and values, as a data source delivers it.
//
// Plain value types. Errors: asking for a column that the row lacks, or for the other kind of value,
// gives 0 or the empty text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessera
{

// A column's value: a 32-bit signed integer or a text (any bytes).
class Value
{
public:
    Value() = default;
    explicit Value(std::int32_t integer) : m_integer(integer) {}
    explicit Value(std::string text) : m_text(std::move(text)), m_isText(true) {}

    std::int32_t getInteger() const { return m_integer; }

    // The reference lives as long as this value.
    const std::string& getText() const { return m_text; }

    bool isText() const { return m_isText; }

    bool operator==(const Value&) const = default;

private:
    // The other kind stays as it was made: 0, or empty.
    std::string m_text;
    std::int32_t m_integer = 0;
    bool m_isText = false;
};

// Column names in the order in which the source delivers them.
using NameList = std::vector<std::string>;

// The values of one row by column name. A row has few columns, so look-up is a walk; who fills or reads one row after
// the other, each with the same columns in the same order, does without it.
class ValueList
{
public:
    // Forgets all values. References that getValue gave become invalid.
    void clear() { m_count = 0; }

    void setValue(std::string_view columnName, Value value)
    {
        // All names are different, those left over from before clear as well.
        if (m_count < m_values.size() && m_values[m_count].first == columnName) {
            m_values[m_count++].second = std::move(value);
            return;
        }
        for (auto& [name, held] : values()) {
            if (name == columnName) {
                held = std::move(value);
                return;
            }
        }
        m_values.resize(m_count);
        m_values.emplace_back(columnName, std::move(value));
        ++m_count;
    }

    // The reference lives until this list changes.
    const Value& getValue(std::string_view columnName) const
    {
        static const Value missing;
        for (std::size_t walked = 0; walked < m_count; ++walked) {
            m_next = m_next < m_count ? m_next : 0;
            const auto& [name, value] = m_values[m_next++];
            if (name == columnName)
                return value;
        }
        return missing;
    }

    // Sets names to the columns that have a value, in the order in which they got their first.
    void getNames(NameList& names) const
    {
        names.resize(m_count);
        for (std::size_t i = 0; i < m_count; ++i)
            names[i] = m_values[i].first;
    }

private:
    using Named = std::pair<std::string, Value>;
    std::span<Named> values() { return std::span(m_values).first(m_count); }

    std::vector<Named> m_values; // of which the first m_count are held
    std::size_t m_count = 0;
    mutable std::size_t m_next = 0; // where getValue begins to look: after what it found last
};

} // namespace tessera
