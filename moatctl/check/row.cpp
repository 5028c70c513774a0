#include "moatctl/check/row.hpp"

#include "ebtables/operands.hpp"
#include "moatctl/tables/values.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace moatctl
{

namespace
{

constexpr std::array ipColumns{"IPSrcAddr", "IPDstAddr", "IPProto", "IPPort"};

// Only these spellings make the daemon look at addresses, protocol and port.
bool isIpv4(const std::string& ethertype)
{
    return ethertype == "IPv4" || ethertype == "0x800";
}
bool isIpv6(const std::string& ethertype)
{
    return ethertype == "IPv6" || ethertype == "0x86DD";
}

// Why a rule's IP columns have no effect; empty when they have.
std::string whyIpIsIgnored(const Row& rule)
{
    const std::string& type = rule.text("Ethertype");
    if (rule.integer("VLANID") != -1)
        return "in a rule with a VLANID";
    if (type.empty())
        return "without an Ethertype of IPv4 or IPv6";
    if (isIpv4(type) || isIpv6(type))
        return "";
    const std::string lower = lowerCase(type);
    if (lower == "ipv4" || lower == "ipv6" || lower == "0x0800" || lower == "0x86dd")
        return "with this spelling of the Ethertype, expected exactly IPv4, 0x800, IPv6 or 0x86DD";
    return "with an Ethertype of " + inQuotes(type);
}

// A switch that is neither 0 nor 1. The policies of ports are in force when it is exactly 1, other rows unless it is 0.
std::string takenFor(const Row& row, const schema::Column& column)
{
    const bool exactly = column.name != "Enabled" || row.table->id == TableId::InputPolicies ||
                         row.table->id == TableId::ForwardingPolicies;
    return std::string("; the daemon takes it for ") + (exactly ? "0" : "1");
}

class RowCheck
{
public:
    RowCheck(const Configuration& configuration, const Row& row) : m_configuration(configuration), m_row(row) {}

    std::vector<Problem> run()
    {
        if (m_row.table->id == TableId::FilterRules)
            checkFilterRule(); // knows best what is expected
        for (std::size_t i = 0; i < m_row.values.size(); ++i)
            checkValue(m_row.table->columns[i], m_row.values[i]);
        if (m_row.table->id == TableId::Rules)
            checkRule();
        if (m_row.table->id == TableId::Filters)
            checkFilter();
        return std::move(m_problems);
    }

private:
    void report(Severity severity, std::string_view column, std::string text)
    {
        m_problems.push_back(problemAt(severity, m_configuration, m_row, column, std::move(text)));
    }

    bool isWrong(std::string_view column) const
    {
        return std::ranges::find(m_problems, column, &Problem::column) != m_problems.end();
    }

    void expect(bool good, std::string_view column, const std::string& expected)
    {
        if (!good && !isWrong(column))
            report(Severity::Error, column, inQuotes(m_row.value(column)) + ": expected " + expected);
    }

    void checkValue(const schema::Column& column, const tessera::Value& value)
    {
        const bool missing = column.required && value.isText() && value.getText().empty();
        std::optional<std::string> wrong = missing ? expectedInstead(column, value) : wrongValue(column, value);
        if (!wrong || isWrong(column.name))
            return;
        if (column.kind == ValueKind::Switch)
            *wrong += takenFor(m_row, column);
        report(Severity::Error, column.name, std::move(*wrong));
    }

    void checkRule()
    {
        const std::string& ethertype = m_row.text("Ethertype");
        if (m_row.integer("VLANID") != -1 && !ethertype.empty())
            expect(ebtables::parseEncapsulated(withoutNot(ethertype)).has_value(), "Ethertype",
                   "the protocol after a VLAN tag, a name or a number");
        if (const std::string why = whyIpIsIgnored(m_row); !why.empty()) {
            for (const char* column : ipColumns) {
                const tessera::Value& value = m_row.value(column);
                if (value != m_row.table->columns[m_row.table->at(column)].defaultValue())
                    report(Severity::Warning, column,
                           inQuotes(value) + ": ignored " + why + "; the rule matches whatever the frame has");
            }
            return;
        }
        const bool four = isIpv4(ethertype);
        for (const char* column : {"IPSrcAddr", "IPDstAddr"}) {
            const std::string_view address = withoutNot(m_row.text(column));
            const bool fits =
                four ? ebtables::parseNetwork<4>(address).has_value() : ebtables::parseNetwork<16>(address).has_value();
            expect(address.empty() || fits, column,
                   std::string("an ") + (four ? "IPv4" : "IPv6") + " address, as the Ethertype says");
        }
        expect(m_row.integer("IPPort") == 0 || !m_row.text("IPProto").empty(), "IPPort",
               "a protocol to go with a port, IPProto TCP or UDP");
    }

    // Its chain is named after the ports.
    void checkFilter()
    {
        for (const char* column : {"InInterface", "OutInterface"})
            expect(!m_row.text(column).starts_with('!'), column, "the name of one interface");
    }

    void checkFilterRule()
    {
        const std::int32_t id = m_row.integer("BridgeFilterID");
        const Row* filter = m_configuration.find(TableId::Filters, id);
        if (filter == nullptr)
            return report(Severity::Error, "BridgeFilterID",
                          std::to_string(id) + ": there is no such filter; expected the Id of a filter");
        const std::string_view match = withoutNot(m_row.text("FilterMatch"));
        const std::string criteria = lowerCase(filter->text("MatchCriteria"));
        const auto expectMatch = [&](bool good, const char* expected) {
            expect(good, "FilterMatch", std::string(expected) + ", as filter " + std::to_string(id) + " says");
        };
        if (criteria == "mac")
            expectMatch(ebtables::parseMac(match).has_value(), "a MAC address");
        else if (criteria == "ipv4")
            expectMatch(ebtables::parseNetwork<4>(match).has_value(), "an IPv4 address or network");
        else if (criteria == "ipv6")
            expectMatch(ebtables::parseNetwork<16>(match).has_value(), "an IPv6 address or network");
        else if (criteria == "vlan")
            expectMatch(isVlanMatch(match), "a VLAN id from 0 to 4094");
    }

    const Configuration& m_configuration;
    const Row& m_row;
    std::vector<Problem> m_problems;
};

} // namespace

std::vector<Problem> checkRow(const Configuration& configuration, const Row& row)
{
    return RowCheck(configuration, row).run();
}

} // namespace moatctl
