#include "ovsdb/rpc_session.hpp"

#include "text/one_line.hpp"

#include <algorithm>
#include <utility>

namespace ovsdb
{

namespace
{

constexpr std::size_t longestEcho = 64 * 1024;     // a server's echo carries nothing, or its own name
constexpr std::size_t longestOutput = 1024 * 1024; // of echoes that the peer does not read

constexpr std::size_t longestError = 400; // of a server's, as it is told

// Of a message without its rows. A schema has some 2,000.
constexpr std::size_t maximumValues = 100'000;
// What one part of an answer takes at most: {"uuid":["uuid","..."]} is 5 values in some 60 bytes.
constexpr std::size_t bytesPerPart = 256;
constexpr std::size_t valuesPerPart = 8;

Json parse(std::string_view text, const JsonLimits& limits, const char* what)
{
    try {
        return parseJson(text, limits);
    } catch (const JsonError& e) {
        throw ProtocolError(std::string(what) + " is no JSON: " + e.what() + " at byte " + std::to_string(e.offset()));
    }
}

// A row comes as a member of an object: "name": value.
RpcRow rowOf(const MessagePiece& piece)
{
    RpcRow row;
    if (!piece.table.empty())
        row.table = *parse(piece.table, {}, "message").asText();
    Json object = parse('{' + piece.text + '}', {.depth = maximumMessageDepth, .values = 1000}, "row");
    Json::Object& members = *object.asObject();
    if (members.size() != 1)
        throw ProtocolError("message is no JSON: expected a row between two commas");
    row.name = std::move(members.front().first);
    row.value = std::move(members.front().second);
    return row;
}

} // namespace

std::string describeError(const Json& error)
{
    const Json* name = error.find("error");
    const Json* details = error.find("details");
    if (name == nullptr || name->asText() == nullptr)
        return text::oneLine(error.asText() != nullptr ? *error.asText() : toText(error), longestError);
    if (details == nullptr || details->asText() == nullptr)
        return text::oneLine(*name->asText(), longestError);
    return text::oneLine(*name->asText() + ": " + *details->asText(), longestError);
}

std::int64_t RpcSession::request(std::string_view method, Json params, std::size_t answerParts)
{
    const std::int64_t id = ++m_lastId;
    send(Json::Object{{"method", method}, {"params", std::move(params)}, {"id", id}});
    m_pending.emplace(id, answerParts);
    m_framer.limitMessages(maximumPieceSize + bytesPerPart * largestAnswer());
    return id;
}

std::size_t RpcSession::largestAnswer() const
{
    std::size_t parts = 0;
    for (const auto& [id, answerParts] : m_pending)
        parts = std::max(parts, answerParts);
    return parts;
}

std::optional<RpcMessage> RpcSession::next()
{
    while (const auto piece = m_framer.next()) {
        if (piece->isRow) {
            RpcMessage part;
            part.row = rowOf(*piece);
            return part;
        }
        const JsonLimits limits{.depth = maximumMessageDepth,
                                .values = maximumValues + valuesPerPart * largestAnswer()};
        if (auto result = handle(parse(piece->text, limits, "message")))
            return result;
    }
    return std::nullopt;
}

std::optional<RpcMessage> RpcSession::handle(const Json& message)
{
    const Json* method = message.find("method");
    const Json* id = message.find("id");
    if (method != nullptr && !method->isNull()) {
        const std::string* name = method->asText();
        const Json* params = message.find("params");
        if (name == nullptr || params == nullptr || params->asArray() == nullptr)
            throw ProtocolError("message with a method, but without a text as its name or a list as its params");
        if (id == nullptr || id->isNull())
            return RpcMessage{.method = *name, .result = *params};
        if (*name != "echo")
            throw ProtocolError("request that only a server answers: " + text::oneLine(*name));
        const std::string reply = toText(Json::Object{{"id", *id}, {"result", *params}, {"error", Json()}});
        if (reply.size() > longestEcho || m_echoed + reply.size() > longestOutput)
            throw ProtocolError("echo request too large");
        m_echoed += reply.size();
        m_output += reply;
        return std::nullopt;
    }
    const Json* result = message.find("result");
    const Json* error = message.find("error");
    const auto number = id != nullptr ? id->asInteger() : std::nullopt;
    if (!number || (result == nullptr && error == nullptr))
        throw ProtocolError("message that is neither request, answer nor notification");
    if (m_pending.erase(*number) == 0)
        throw ProtocolError("answer to a request that was not made: id " + std::to_string(*number));
    m_framer.limitMessages(maximumPieceSize + bytesPerPart * largestAnswer());
    RpcMessage answer{.id = *number};
    if (error != nullptr && !error->isNull())
        answer.error = describeError(*error);
    else if (result != nullptr)
        answer.result = *result;
    return answer;
}

void RpcSession::send(const Json& message)
{
    m_output += toText(message);
}

} // namespace ovsdb
