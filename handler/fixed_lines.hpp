// The lines that do not come from a record: the user chains, what empties them, and the global policies.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace zol::moatkeeper
{

inline constexpr std::array initLines{
    "ebtables -N UserInputRules",
    "ebtables -N UserInputPolicy",
    "ebtables -N UserForwardRules",
    "ebtables -N UserForwardPolicy",
    "ebtables -P UserInputRules RETURN",
    "ebtables -P UserInputPolicy RETURN",
    "ebtables -P UserForwardRules RETURN",
    "ebtables -P UserForwardPolicy RETURN",
    "ebtables -A INPUT -j UserInputRules",
    "ebtables -A INPUT -j UserInputPolicy",
    "ebtables -A FORWARD -j UserForwardRules",
    "ebtables -A FORWARD -j UserForwardPolicy",
};

inline constexpr std::array cleanUpLines{
    "ebtables -D INPUT -j UserInputRules",
    "ebtables -D INPUT -j UserInputPolicy",
    "ebtables -D FORWARD -j UserForwardRules",
    "ebtables -D FORWARD -j UserForwardPolicy",
    "ebtables -X UserInputRules",
    "ebtables -X UserInputPolicy",
    "ebtables -X UserForwardRules",
    "ebtables -X UserForwardPolicy",
    "ebtables -P FORWARD ACCEPT",
    "ebtables -P INPUT ACCEPT",
};

inline constexpr std::array flushRulesLines{"ebtables -F UserInputRules", "ebtables -F UserForwardRules"};
inline constexpr std::array flushInputPoliciesLines{"ebtables -F UserInputPolicy"};
inline constexpr std::array flushForwardingPoliciesLines{"ebtables -F UserForwardPolicy"};

inline std::array<std::string, 2> globalPolicyLines(std::string_view inputPolicy, std::string_view forwardingPolicy)
{
    return {std::string("ebtables -P INPUT ").append(inputPolicy),
            std::string("ebtables -P FORWARD ").append(forwardingPolicy)};
}

} // namespace zol::moatkeeper
