#include "records/row_lines.hpp"

namespace zol::moatkeeper
{

namespace
{

// match: the chain and the ports.
RowLines policyLines(const std::string& match, std::string_view policy, std::int32_t enableLogging)
{
    std::string_view logOption;
    if (policy == "ACCEPT")
        logOption = " --log --log-prefix \"Moatkeeper accepted: \"";
    else if (policy == "DROP")
        logOption = " --log --log-prefix \"Moatkeeper denied: \"";
    else // told whether or not logging is on
        return {.addCommand = {}, .deleteCommand = {}, .reasons = {Unusable::UnknownPolicy}};

    std::string rule = match;
    if (enableLogging == 1)
        rule += logOption;
    rule.append(" -j ").append(policy);
    return {.addCommand = "ebtables -A " + rule, .deleteCommand = "ebtables -D " + rule, .reasons = {}};
}

} // namespace

RowLines linesOf(const InputPolicyRow& row)
{
    std::string match = "UserInputPolicy -i ";
    match.append(row.interface);
    return policyLines(match, row.policy, row.enableLogging);
}

RowLines linesOf(const ForwardingPolicyRow& row)
{
    std::string match = "UserForwardPolicy -i ";
    match.append(row.inInterface).append(" -o ").append(row.outInterface);
    return policyLines(match, row.policy, row.enableLogging);
}

} // namespace zol::moatkeeper
