#include "moatctl/check/findings.hpp"
#include "moatctl/values.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>

namespace moatctl
{

namespace
{

std::string expectedInstead(const Row& row, std::string_view column)
{
    const schema::Column& info = row.table->columns[row.table->at(column)];
    return inQuotes(row.value(column)) + ": expected " + std::string(schema::expectedValue(info.kind));
}

void badReference(const Row& row, Findings& findings)
{
    const std::int32_t id = row.integer("BridgeFilterID");
    const Row* filter = findings.configuration().find(TableId::Filters, id);
    const std::string value = std::to_string(id) + ": ";
    if (filter == nullptr)
        findings.error(row, "BridgeFilterID", value + "there is no such filter; expected the Id of a filter");
    else if (filter->integer("Enabled") == 0)
        findings.warning(row, "BridgeFilterID", value + "that filter is disabled, so the rule is not in force either");
    else
        findings.error(row, "BridgeFilterID",
                       value + "that filter cannot be used (see there); expected a filter without errors");
}

// Messages of the daemon and the column that they are about.
struct Complaint {
    std::string_view label;
    int number;
    std::string_view column;
};
constexpr std::array complaints{
    Complaint{"moatkeeper", 252, "InInterface"}, Complaint{"moatkeeper", 256, "RulePrio"},
    Complaint{"moatkeeper", 480, "Prio"},        Complaint{"moatkeeper", 563, "FilterMatch"},
    Complaint{"etherrules", 121, "VLANID"},      Complaint{"etherrules", 165, "IPProto"},
    Complaint{"etherrules", 201, "Target"},      Complaint{"policys", 59, "Policy"},
    Complaint{"policys", 127, "Policy"},         Complaint{"filters", 95, "Mode"},
    Complaint{"filters", 233, "FilterMatch"},
};

void findUnusableRow(const ExpectedMessage& message, const Row& row, Findings& findings)
{
    const auto is = [&](std::string_view label, int number) {
        return message.label == label && message.number == number;
    };
    if (is("moatkeeper", 552))
        return badReference(row, findings);
    if (is("moatkeeper", 476)) {
        for (const char* column : {"InInterface", "OutInterface", "MatchCriteria", "Mode"}) {
            if (row.text(column).empty())
                findings.error(row, column, expectedInstead(row, column));
        }
        return;
    }
    if (is("filters", 246)) {
        // The filter itself is in force: without a restriction to a protocol, and without its rules.
        if (const Row* filter = findings.configuration().find(TableId::Filters, row.integer("BridgeFilterID")))
            findings.error(*filter, "MatchCriteria", expectedInstead(*filter, "MatchCriteria"));
        return findings.error(row, "BridgeFilterID", "the filter's MatchCriteria is none, so the rule is not in force");
    }
    const auto complaint =
        std::ranges::find_if(complaints, [&](const Complaint& known) { return is(known.label, known.number); });
    if (complaint != complaints.end())
        return findings.error(row, complaint->column, expectedInstead(row, complaint->column));
    // What says once more that the row is ignored adds nothing.
    if (!findings.hasError(row))
        findings.error(row, "", message.text);
}

// A blank or a quotation mark would change the line around the value.
bool isOneWord(std::string_view text)
{
    if (text.starts_with("! "))
        text.remove_prefix(2);
    return std::ranges::all_of(text, [](char c) { return c > ' ' && c <= '~' && c != '"' && c != ';'; });
}

void findOddSwitch(const Row& row, std::string_view column, std::string_view countsAs, Findings& findings)
{
    const std::int32_t value = row.integer(column);
    if (value != 0 && value != 1)
        findings.error(row, column,
                       expectedInstead(row, column) + "; the daemon takes it for " + std::string(countsAs));
}

std::string lowerCase(std::string_view text)
{
    std::string lower;
    for (const char c : text)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

// Why a rule's IP columns are not looked at; empty when they are.
std::string whyIpIsIgnored(const Row& rule)
{
    constexpr std::array lookedAt{"IPv4", "0x800", "IPv6", "0x86DD"};
    const std::string& type = rule.text("Ethertype");
    if (rule.integer("VLANID") != -1)
        return "in a rule with a VLANID";
    if (type.empty())
        return "without an Ethertype of IPv4 or IPv6";
    if (std::ranges::find(lookedAt, type) != lookedAt.end())
        return "";
    const std::string lower = lowerCase(type);
    if (lower == "ipv4" || lower == "ipv6" || lower == "0x0800" || lower == "0x86dd")
        return "with this spelling of the Ethertype; expected exactly IPv4, 0x800, IPv6 or 0x86DD";
    return "with an Ethertype of " + inQuotes(type);
}

void findIgnoredColumns(const Row& rule, Findings& findings)
{
    const std::string why = whyIpIsIgnored(rule);
    if (why.empty())
        return;
    const std::string text = ": not looked at " + why + "; the rule matches whatever stands there";
    for (const char* column : {"IPSrcAddr", "IPDstAddr", "IPProto"}) {
        if (!rule.text(column).empty())
            findings.warning(rule, column, inQuotes(rule.value(column)) + text);
    }
    if (rule.integer("IPPort") != 0)
        findings.warning(rule, "IPPort", inQuotes(rule.value("IPPort")) + text);
}

void findMissingInterface(const Row& row, const schema::Column& column, const CheckOptions& options, Findings& findings)
{
    std::string name = row.text(column.name);
    if (name.starts_with("! "))
        name.erase(0, 2);
    if (name.empty() || name.back() == '+' || name.size() > ebtables::maxInterfaceName)
        return;
    if (!options.interfaceExists(name))
        findings.warning(row, column.name, inQuotes(name) + ": this machine has no such interface");
}

void findOddValuesOf(const Row& row, const CheckOptions& options, Findings& findings)
{
    for (const schema::Column& column : row.table->columns) {
        const tessera::Value& value = row.value(column.name);
        if (value.isText() && !isOneWord(value.getText()))
            findings.error(row, column.name, expectedInstead(row, column.name) + ", as a single word");
        else if (column.kind == ValueKind::Interface && options.interfaceExists)
            findMissingInterface(row, column, options, findings);
        if (column.name == "EnableLogging")
            findOddSwitch(row, column.name, "0", findings);
    }
    if (row.table->id == TableId::Rules)
        findIgnoredColumns(row, findings);
}

} // namespace

void findUnusable(const Expected& expected, Findings& findings)
{
    for (const ExpectedMessage& message : expected.messages) {
        if (message.origin != nullptr)
            findUnusableRow(message, *message.origin, findings);
    }
}

void findOddValues(const Expected& expected, const CheckOptions& wanted, Findings& findings)
{
    // Many rows name few ports.
    std::map<std::string, bool> known;
    CheckOptions options;
    if (wanted.interfaceExists) {
        options.interfaceExists = [&](const std::string& name) {
            const auto [place, isNew] = known.try_emplace(name);
            if (isNew)
                place->second = wanted.interfaceExists(name);
            return place->second;
        };
    }
    for (const Row& row : findings.configuration().rows(TableId::Global))
        findOddValuesOf(row, options, findings);
    for (const Row* row : expected.used)
        findOddValuesOf(*row, options, findings);

    // Of all rows: it says whether a row is used.
    for (const schema::Table& table : schema::allTables()) {
        const bool onlyOne = table.id == TableId::InputPolicies || table.id == TableId::ForwardingPolicies;
        for (const Row& row : findings.configuration().rows(table.id)) {
            if (table.hasIds())
                findOddSwitch(row, "Enabled", onlyOne ? "0" : "1", findings);
        }
    }
}

void findFurtherValues(const Expected& expected, Findings& findings)
{
    const std::set<const Row*> used(expected.used.begin(), expected.used.end());
    for (const schema::Table& table : schema::allTables()) {
        for (const Row& row : findings.configuration().rows(table.id)) {
            for (const schema::Column& column : table.columns) {
                if (auto wrong = wrongValue(column, row.value(column.name)))
                    findings.error(row, column.name, std::move(*wrong));
            }
            if (!table.hasIds() || used.contains(&row) || findings.hasError(row))
                continue;
            for (Problem& problem : checkRow(findings.configuration(), row)) {
                if (problem.severity == Severity::Error)
                    findings.error(row, problem.column, std::move(problem.text));
                else
                    findings.warning(row, problem.column, std::move(problem.text));
            }
        }
    }
}

} // namespace moatctl
