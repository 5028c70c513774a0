// One row of a configuration table: column names and values, as a data source delivers it.
//
// Plain value types. Errors: asking for a column that the row lacks, or for the other kind of value,
// gives 0 or the empty text.
#pragma once

#include <cstdint>
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

// The values of one row by column name. A row has few columns, so look-up is a walk.
class ValueList
{
public:
    // Forgets all values. References that getValue gave become invalid.
    void clear() { m_values.clear(); }

    void setValue(std::string_view columnName, Value value)
    {
        for (auto& [name, held] : m_values) {
            if (name == columnName) {
                held = std::move(value);
                return;
            }
        }
        m_values.emplace_back(columnName, std::move(value));
    }

    // The reference lives until this list changes.
    const Value& getValue(std::string_view columnName) const
    {
        static const Value missing;
        for (const auto& [name, value] : m_values) {
            if (name == columnName)
                return value;
        }
        return missing;
    }

    // Sets names to the columns that have a value, in the order in which they got their first.
    void getNames(NameList& names) const
    {
        names.clear();
        names.reserve(m_values.size());
        for (const auto& [name, value] : m_values)
            names.push_back(name);
    }

private:
    std::vector<std::pair<std::string, Value>> m_values;
};

} // namespace tessera
