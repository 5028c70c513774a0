#include "ovsdb/json.hpp"

#include <algorithm>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace ovsdb
{

namespace
{

// Receives the parser's events and builds the value from them. An event that returns false ends the parsing.
class Builder
{
public:
    Builder(const rapidjson::MemoryStream& stream, const JsonLimits& limits) : m_stream(stream), m_limits(limits) {}

    bool Null() { return add(Json()); }
    bool Bool(bool value) { return add(Json(value)); }
    bool Int(int value) { return add(Json(value)); }
    bool Uint(unsigned value) { return add(Json(std::int64_t{value})); }
    bool Int64(std::int64_t value) { return add(Json(value)); }
    bool Uint64(std::uint64_t value) { return add(Json(static_cast<double>(value))); }
    bool Double(double value) { return add(Json(value)); }
    bool RawNumber(const char*, rapidjson::SizeType, bool) { return fail("unexpected number"); }
    bool String(const char* text, rapidjson::SizeType length, bool) { return add(Json(std::string(text, length))); }
    bool StartArray() { return open(Json(Json::Array())); }
    bool EndArray(rapidjson::SizeType) { return close(); }
    bool StartObject() { return open(Json(Json::Object())); }
    bool EndObject(rapidjson::SizeType) { return namesDiffer() && close(); }

    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        m_open.back().asObject()->emplace_back(std::string(text, length), Json());
        return true;
    }

    const std::string& failure() const { return m_failure; }
    Json takeResult() { return std::move(m_result); }

private:
    bool fail(std::string reason)
    {
        m_failure = std::move(reason);
        return false;
    }

    // The end of the value that the parser tells of; where it began is not known any more.
    std::size_t lastByte() const { return m_stream.Tell() > 0 ? m_stream.Tell() - 1 : 0; }

    bool count()
    {
        if (++m_values <= m_limits.values)
            return true;
        return fail("more than " + std::to_string(m_limits.values) + " values");
    }

    // A closed value goes into the container that is open, or is the result.
    void place(Json value)
    {
        if (m_open.empty())
            m_result = std::move(value);
        else if (Json::Array* list = m_open.back().asArray())
            list->push_back(std::move(value));
        else
            m_open.back().asObject()->back().second = std::move(value);
    }

    bool add(Json value)
    {
        value.setOffset(lastByte());
        if (!count())
            return false;
        place(std::move(value));
        return true;
    }

    bool open(Json container)
    {
        container.setOffset(m_stream.Tell()); // the bracket is not read yet
        if (m_open.size() >= m_limits.depth)
            return fail("more than " + std::to_string(m_limits.depth) + " levels");
        if (!count())
            return false;
        m_open.push_back(std::move(container));
        return true;
    }

    bool close()
    {
        Json closed = std::move(m_open.back());
        m_open.pop_back();
        place(std::move(closed));
        return true;
    }

    bool namesDiffer()
    {
        const Json::Object& members = *m_open.back().asObject();
        std::vector<std::string_view> names;
        names.reserve(members.size());
        for (const auto& member : members)
            names.emplace_back(member.first);
        std::sort(names.begin(), names.end());
        const auto twin = std::adjacent_find(names.begin(), names.end());
        return twin == names.end() || fail("member \"" + std::string(twin->substr(0, 64)) + "\" twice in one object");
    }

    const rapidjson::MemoryStream& m_stream;
    const JsonLimits& m_limits;
    std::vector<Json> m_open;
    std::size_t m_values = 0;
    Json m_result;
    std::string m_failure;
};

using TextWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// The depth of values of ours is bounded by the limits of the parser or by the operations that we build.
void write(TextWriter& writer, const Json& value)
{
    const auto length = [](const std::string& text) { return static_cast<rapidjson::SizeType>(text.size()); };
    if (const std::string* text = value.asText()) {
        writer.String(text->data(), length(*text));
    } else if (const Json::Array* list = value.asArray()) {
        writer.StartArray();
        for (const Json& element : *list)
            write(writer, element);
        writer.EndArray();
    } else if (const Json::Object* object = value.asObject()) {
        writer.StartObject();
        for (const auto& [name, member] : *object) {
            writer.Key(name.data(), length(name));
            write(writer, member);
        }
        writer.EndObject();
    } else if (const auto integer = value.asInteger()) {
        writer.Int64(*integer);
    } else if (const auto number = value.asDouble()) {
        writer.Double(*number);
    } else if (const auto truth = value.asBool()) {
        writer.Bool(*truth);
    } else {
        writer.Null();
    }
}

template <unsigned flags>
Json parseWith(std::string_view text, const JsonLimits& limits)
{
    rapidjson::MemoryStream stream(text.data(), text.size());
    Builder builder(stream, limits);
    rapidjson::Reader reader;
    constexpr unsigned all = flags | rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
    const rapidjson::ParseResult result = reader.Parse<all>(stream, builder);
    if (result.IsError()) {
        const bool ours = result.Code() == rapidjson::kParseErrorTermination;
        throw JsonError(ours ? builder.failure() : rapidjson::GetParseError_En(result.Code()), result.Offset());
    }
    if (stream.Tell() != text.size()) // the parser takes a NUL byte for the end
        throw JsonError("text behind the value", stream.Tell());
    return builder.takeResult();
}

} // namespace

std::optional<bool> Json::asBool() const
{
    const bool* value = std::get_if<bool>(&m_value);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

std::optional<std::int64_t> Json::asInteger() const
{
    const std::int64_t* value = std::get_if<std::int64_t>(&m_value);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

std::optional<double> Json::asDouble() const
{
    if (const auto integer = asInteger())
        return static_cast<double>(*integer);
    const double* value = std::get_if<double>(&m_value);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

const Json* Json::find(std::string_view name) const
{
    const Object* members = asObject();
    if (members == nullptr)
        return nullptr;
    const auto found = std::find_if(members->begin(), members->end(), [&](const auto& m) { return m.first == name; });
    return found != members->end() ? &found->second : nullptr;
}

const char* Json::kindName() const
{
    static constexpr const char* names[] = {"null",   "a boolean", "an integer", "a number",
                                            "a text", "a list",    "an object"};
    return names[m_value.index()];
}

Json parseJson(std::string_view text, const JsonLimits& limits)
{
    return limits.comments ? parseWith<rapidjson::kParseCommentsFlag>(text, limits)
                           : parseWith<rapidjson::kParseNoFlags>(text, limits);
}

std::string toText(const Json& value)
{
    rapidjson::StringBuffer buffer;
    TextWriter writer(buffer);
    write(writer, value);
    return {buffer.GetString(), buffer.GetSize()};
}

} // namespace ovsdb
