#include "moatctl/values.hpp"

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

bool between(std::int32_t value, std::int32_t smallest, std::int32_t largest)
{
    return smallest <= value && value <= largest;
}

bool isNetwork(std::string_view text)
{
    return ebtables::parseNetwork<4>(text).has_value() || ebtables::parseNetwork<16>(text).has_value();
}

// The daemon hands values on as they are, so that "! " in front means everything else.
std::string_view withoutNot(std::string_view text)
{
    return text.substr(text.starts_with("! ") ? 2 : 0);
}

bool isVlanMatch(std::string_view text)
{
    const auto number = parseNumber(text);
    return number && between(*number, 0, largestVlan);
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

std::string changedCase(std::string text, int (*change)(int))
{
    for (char& character : text)
        character = static_cast<char>(change(static_cast<unsigned char>(character)));
    return text;
}

// Only these spellings make the daemon look at addresses, protocol and port.
bool isIpv4(const std::string& ethertype)
{
    return ethertype == "IPv4" || ethertype == "0x800";
}
bool isIpv6(const std::string& ethertype)
{
    return ethertype == "IPv6" || ethertype == "0x86DD";
}

class RowCheck
{
public:
    RowCheck(const Configuration& configuration, const Row& row) : m_configuration(configuration), m_row(row) {}

    std::vector<Problem> run()
    {
        for (std::size_t i = 0; i < m_row.values.size(); ++i) {
            const schema::Column& column = m_row.table->columns[i];
            const bool empty = m_row.values[i].isText() && m_row.values[i].getText().empty();
            if (column.required && empty)
                report(column.name, "empty: expected " + std::string(schema::expectedValue(column.kind)));
            else if (const auto wrong = wrongValue(column, m_row.values[i]))
                report(column.name, *wrong);
        }
        if (m_row.table->id == TableId::Rules && m_problems.empty())
            checkRule();
        if (m_row.table->id == TableId::Filters && m_problems.empty())
            checkFilter();
        if (m_row.table->id == TableId::FilterRules && m_problems.empty())
            checkFilterRule();
        return std::move(m_problems);
    }

private:
    void report(std::string_view column, std::string text, Severity severity = Severity::Error)
    {
        m_problems.push_back(problemAt(severity, m_configuration, m_row, column, std::move(text)));
    }

    void checkRule()
    {
        const std::string& ethertype = m_row.text("Ethertype");
        const bool tagged = m_row.integer("VLANID") != -1;
        const bool ip = isIpv4(ethertype) || isIpv6(ethertype);
        if (tagged && !ethertype.empty() && !ebtables::parseEncapsulated(withoutNot(ethertype)))
            report("Ethertype", inQuotes(ethertype) + ": expected the protocol behind a VLAN tag, a name or a number");
        for (const char* column : {"IPSrcAddr", "IPDstAddr", "IPProto", "IPPort"}) {
            const tessera::Value& value = m_row.value(column);
            if (value == m_row.table->columns[m_row.table->at(column)].defaultValue())
                continue;
            if (tagged)
                report(column, inQuotes(value) + ": has no effect in a rule with a VLAN: expected no value",
                       Severity::Warning);
            else if (!ip)
                report(column,
                       inQuotes(value) + ": has no effect unless the ethertype is IPv4 or IPv6, found " +
                           (ethertype.empty() ? "none" : inQuotes(ethertype)),
                       Severity::Warning);
        }
        if (tagged || !ip)
            return;
        for (const char* column : {"IPSrcAddr", "IPDstAddr"}) {
            const std::string_view address = withoutNot(m_row.text(column));
            const bool fits = isIpv4(ethertype) ? ebtables::parseNetwork<4>(address).has_value()
                                                : ebtables::parseNetwork<16>(address).has_value();
            if (!address.empty() && !fits)
                report(column, inQuotes(m_row.value(column)) + ": expected an " +
                                   (isIpv4(ethertype) ? "IPv4" : "IPv6") + " address, as the ethertype says");
        }
        if (m_row.integer("IPPort") != 0 && m_row.text("IPProto").empty())
            report("IPPort", std::to_string(m_row.integer("IPPort")) + ": expected a protocol, TCP or UDP, with it");
    }

    // Its chain is named after the ports.
    void checkFilter()
    {
        for (const char* column : {"InInterface", "OutInterface"}) {
            if (m_row.text(column).starts_with('!'))
                report(column, inQuotes(m_row.value(column)) + ": expected the name of one interface");
        }
    }

    void checkFilterRule()
    {
        const std::int32_t id = m_row.integer("BridgeFilterID");
        const Row* filter = m_configuration.find(TableId::Filters, id);
        if (filter == nullptr) {
            report("BridgeFilterID", std::to_string(id) + ": there is no such filter");
            return;
        }
        const std::string_view match = withoutNot(m_row.text("FilterMatch"));
        const std::string criteria = changedCase(filter->text("MatchCriteria"), std::tolower);
        const auto expect = [&](bool good, const char* expected) {
            if (!good)
                report("FilterMatch", inQuotes(m_row.value("FilterMatch")) + ": expected " + expected + ", as filter " +
                                          std::to_string(id) + " says");
        };
        if (criteria == "mac")
            expect(ebtables::parseMac(match).has_value(), "a MAC address");
        else if (criteria == "ipv4")
            expect(ebtables::parseNetwork<4>(match).has_value(), "an IPv4 address or network");
        else if (criteria == "ipv6")
            expect(ebtables::parseNetwork<16>(match).has_value(), "an IPv6 address or network");
        else if (criteria == "vlan")
            expect(isVlanMatch(match), "a VLAN id from 0 to 4094");
    }

    const Configuration& m_configuration;
    const Row& m_row;
    std::vector<Problem> m_problems;
};

} // namespace

std::optional<std::string> wrongValue(const schema::Column& column, const tessera::Value& value)
{
    if (isGood(column.kind, value))
        return std::nullopt;
    return inQuotes(value) + ": expected " + std::string(schema::expectedValue(column.kind));
}

std::vector<Problem> checkRow(const Configuration& configuration, const Row& row)
{
    return RowCheck(configuration, row).run();
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
        else if (column.kind == ValueKind::VlanId && (text.empty() || text == "none"))
            value = tessera::Value(-1);
        else if (column.kind == ValueKind::Port && (text.empty() || text == "none"))
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
        value = tessera::Value(text == "6"    ? std::string("TCP")
                               : text == "17" ? std::string("UDP")
                                              : changedCase(text, std::toupper));
        break;
    case ValueKind::Target:
        value = tessera::Value(changedCase(text, std::toupper));
        break;
    case ValueKind::Criteria:
    case ValueKind::Mode:
        value = tessera::Value(changedCase(text, std::tolower));
        break;
    case ValueKind::Interface:
    case ValueKind::Mac:
    case ValueKind::Network:
    case ValueKind::FilterMatch:
        break;
    }
    if ((column.required && text.empty()) || wrongValue(column, value))
        throw refuse();
    return value;
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
