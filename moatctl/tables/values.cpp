#include "moatctl/tables/values.hpp"

#include "ebtables/operands.hpp"
#include "moatctl/exit_status.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace moatctl
{

namespace
{

constexpr std::int32_t largestVlan = 4094;
constexpr std::int32_t largestPort = 65535;
constexpr std::uint16_t ipv4Number = 0x0800;
constexpr std::uint16_t ipv6Number = 0x86dd;

bool between(std::int32_t value, std::int32_t from, std::int32_t to)
{
    return from <= value && value <= to;
}

bool isNetwork(std::string_view text)
{
    return ebtables::parseNetwork<4>(text).has_value() || ebtables::parseNetwork<16>(text).has_value();
}

bool isGood(ValueKind kind, const tessera::Value& value)
{
    const std::int32_t number = value.getInteger();
    const std::string& text = value.getText();
    switch (kind) {
    case ValueKind::Id:
    case ValueKind::FilterPriority:
    case ValueKind::FilterId:
        return number >= 1;
    case ValueKind::Switch:
        return between(number, 0, 1);
    case ValueKind::RulePriority:
        return number != 0;
    case ValueKind::Interface:
        return text.empty() || ebtables::parseInterface(withoutNot(text)).has_value();
    case ValueKind::Mac:
        return text.empty() || ebtables::parseMac(withoutNot(text)).has_value();
    case ValueKind::VlanId:
        return between(number, -1, largestVlan);
    case ValueKind::Ethertype:
        return text.empty() || ebtables::parseEthertype(withoutNot(text)).has_value();
    case ValueKind::Network:
        return text.empty() || isNetwork(withoutNot(text));
    case ValueKind::Protocol:
        return text.empty() || text == "TCP" || text == "UDP";
    case ValueKind::Port:
        return between(number, 0, largestPort);
    case ValueKind::Target:
        return text == "ACCEPT" || text == "DROP";
    case ValueKind::Criteria:
        return text == "mac" || text == "MAC" || text == "ipv4" || text == "IPv4" || text == "ipv6" || text == "IPv6" ||
               text == "vlan" || text == "VLAN";
    case ValueKind::Mode:
        return text == "blacklist" || text == "whitelist";
    case ValueKind::FilterMatch:
        return ebtables::parseMac(withoutNot(text)).has_value() || isNetwork(withoutNot(text)) ||
               isVlanMatch(withoutNot(text));
    }
    return false;
}

std::string upperCase(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

} // namespace

std::string_view withoutNot(std::string_view text)
{
    return text.substr(text.starts_with("! ") ? 2 : 0);
}

bool isVlanMatch(std::string_view text)
{
    const auto number = parseNumber(text);
    return number && between(*number, 0, largestVlan);
}

std::string expectedInstead(const schema::Column& column, const tessera::Value& value)
{
    return inQuotes(value) + ": expected " + std::string(schema::expectedValue(column.kind));
}

std::optional<std::string> wrongValue(const schema::Column& column, const tessera::Value& value)
{
    if (const auto expected = schema::expectedOperand(column.kind, value.getText()))
        return inQuotes(value) + ": expected " + *expected;
    if (isGood(column.kind, value))
        return std::nullopt;
    return expectedInstead(column, value);
}

tessera::Value fromPerson(const schema::Column& column, const std::string& text, std::string_view what)
{
    const auto refuse = [&]() -> Failure {
        return {ExitStatus::BadInput, std::string(what) + ' ' + inQuotes(text) + ": expected " +
                                          std::string(schema::expectedValue(column.kind))};
    };
    tessera::Value value(text);
    switch (column.kind) {
    case ValueKind::Id:
    case ValueKind::Switch:
    case ValueKind::RulePriority:
    case ValueKind::FilterPriority:
    case ValueKind::FilterId:
    case ValueKind::VlanId:
    case ValueKind::Port:
        if (const auto number = parseNumber(text))
            value = tessera::Value(*number);
        else if (column.kind == ValueKind::VlanId && text == "none")
            value = tessera::Value(-1);
        else if (column.kind == ValueKind::Port && text == "none")
            value = tessera::Value(0);
        else
            throw refuse();
        break;
    case ValueKind::Ethertype:
        if (const auto number = ebtables::parseEthertype(text); number && !number->lengthField && !number->negated) {
            if (number->number == ipv4Number)
                value = tessera::Value(std::string("IPv4"));
            else if (number->number == ipv6Number)
                value = tessera::Value(std::string("IPv6"));
        }
        break;
    case ValueKind::Protocol:
        value = tessera::Value(text == "6" ? std::string("TCP") : text == "17" ? std::string("UDP") : upperCase(text));
        break;
    case ValueKind::Target:
        value = tessera::Value(upperCase(text));
        break;
    case ValueKind::Criteria:
    case ValueKind::Mode:
        value = tessera::Value(lowerCase(text));
        break;
    case ValueKind::Interface:
    case ValueKind::Mac:
    case ValueKind::Network:
    case ValueKind::FilterMatch:
        break;
    }
    if (text.empty() || wrongValue(column, value))
        throw refuse();
    return value;
}

std::string lowerCase(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::optional<std::int32_t> parseNumber(std::string_view text)
{
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

} // namespace moatctl
