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
#include <variant>
#include <vector>

namespace tessera
{

// A column's value: a 32-bit signed integer or a text (any bytes).
class Value
{
public:
    Value() = default;
    explicit Value(std::int32_t integer) : m_value(integer) {}
    explicit Value(std::string text) : m_value(std::move(text)) {}

    std::int32_t getInteger() const
    {
        const std::int32_t* integer = std::get_if<std::int32_t>(&m_value);
        return integer != nullptr ? *integer : 0;
    }

    // The reference lives as long as this value.
    const std::string& getText() const
    {
        static const std::string empty;
        const std::string* text = std::get_if<std::string>(&m_value);
        return text != nullptr ? *text : empty;
    }

    bool isText() const { return std::holds_alternative<std::string>(m_value); }

    bool operator==(const Value&) const = default;

private:
    std::variant<std::int32_t, std::string> m_value;
};

// Column names in the order in which the source delivers them.
using NameList = std::vector<std::string>;

// The values of one row by column name. A row has few columns, so look-up is a walk; a list that is filled for one row
// after the other with the same columns does without it.
class ValueList
{
public:
    // Forgets all values. References that getValue gave become invalid.
    void clear() { m_count = 0; }

    void setValue(std::string_view columnName, const Value& value)
    {
        // All names are different, those left over from before clear as well.
        if (m_count < m_values.size() && m_values[m_count].first == columnName) {
            m_values[m_count++].second = value;
            return;
        }
        for (auto& [name, held] : values()) {
            if (name == columnName) {
                held = value;
                return;
            }
        }
        m_values.resize(m_count);
        m_values.emplace_back(columnName, value);
        ++m_count;
    }

    // The reference lives until this list changes.
    const Value& getValue(std::string_view columnName) const
    {
        static const Value missing;
        for (const auto& [name, value] : values()) {
            if (name == columnName)
                return value;
        }
        return missing;
    }

    // Sets names to the columns that have a value, in the order in which they got their first.
    void getNames(NameList& names) const
    {
        names.clear();
        names.reserve(m_count);
        for (const auto& [name, value] : values())
            names.push_back(name);
    }

private:
    using Named = std::pair<std::string, Value>;
    std::span<Named> values() { return std::span(m_values).first(m_count); }
    std::span<const Named> values() const { return std::span(m_values).first(m_count); }

    std::vector<Named> m_values; // of which the first m_count are held
    std::size_t m_count = 0;
};

} // namespace tessera
