// A JSON value that remembers where in its text it stood, and the one parser and writer of the project.
#pragma once

#include "ovsdb/error.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ovsdb
{

// Plain value. Members of an object keep the order of the text; their names differ.
class Json
{
public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>;

    Json() = default; // null
    Json(bool value) : m_value(value) {}
    Json(int value) : m_value(std::int64_t{value}) {}
    Json(std::int64_t value) : m_value(value) {}
    Json(double value) : m_value(value) {}
    Json(const char* value) : m_value(std::string(value)) {}
    Json(std::string_view value) : m_value(std::string(value)) {}
    Json(std::string value) : m_value(std::move(value)) {}
    Json(Array value) : m_value(std::move(value)) {}
    Json(Object value) : m_value(std::move(value)) {}

    // The value when it is of that kind, else nullptr or nothing. A number counts as an integer when it is written
    // as one (no '.', no exponent) and fits 64 bits.
    bool isNull() const { return std::holds_alternative<std::monostate>(m_value); }
    std::optional<bool> asBool() const;
    std::optional<std::int64_t> asInteger() const;
    std::optional<double> asDouble() const; // integers too
    const std::string* asText() const { return std::get_if<std::string>(&m_value); }
    const Array* asArray() const { return std::get_if<Array>(&m_value); }
    const Object* asObject() const { return std::get_if<Object>(&m_value); }
    Array* asArray() { return std::get_if<Array>(&m_value); }
    Object* asObject() { return std::get_if<Object>(&m_value); }

    // The member of that name, or nullptr when there is none or this is no object. Walks the members.
    const Json* find(std::string_view name) const;

    // "null", "a boolean", "an integer", "a number", "a text", "a list" or "an object", for messages.
    const char* kindName() const;

    // Where the value stands in the text it was parsed from, in bytes: the opening bracket of a list or an object, the
    // last byte of anything else. 0 for a value made otherwise.
    std::size_t offset() const { return m_offset; }
    void setOffset(std::size_t offset) { m_offset = static_cast<std::uint32_t>(offset); }

    // Compares kinds and values, not offsets. Order of members counts.
    bool operator==(const Json& other) const { return m_value == other.m_value; }

private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Array, Object> m_value;
    std::uint32_t m_offset = 0;
};

// The text is no JSON, or is outside the limits. what() is the reason without the place.
class JsonError : public Error
{
public:
    JsonError(const std::string& reason, std::size_t offset) : Error(reason), m_offset(offset) {}
    std::size_t offset() const { return m_offset; }

private:
    std::size_t m_offset;
};

struct JsonLimits {
    std::size_t depth = 32;         // containers inside each other
    std::size_t values = 1'000'000; // values in the whole text
    bool comments = false;          // whether /* */ and // comments are allowed
};

// Parses one value that fills the text (blanks around it are allowed). The text must be UTF-8.
// Refused with JsonError: bad syntax, trailing text, two members of one name, more than the limits allow.
// Takes memory in proportion to the text; does not recurse.
Json parseJson(std::string_view text, const JsonLimits& limits = {});

// One line, without blanks.
std::string toText(const Json& value);

} // namespace ovsdb
