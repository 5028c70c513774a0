// Rules as bytes: the attributes of a message to or from the kernel.
//
// Whatever the kernel's side sends is read within its bounds. No operation throws but std::bad_alloc.
#pragma once

#include "ebtables/table.hpp"
#include "nftables/expressions.hpp"

#include <cstdint>
#include <string_view>

struct nlattr;
struct nlmsghdr;

namespace nftables
{

inline constexpr const char* filterTable = "filter";
inline constexpr const char* compiledTable = "moatkeeper"; // that of the compiled form

// A rule's message. Views are of the message.
struct RuleView {
    std::string_view table;
    std::string_view chain;
    std::uint64_t handle = 0;
    bool isChainPolicy = false; // a user chain's policy, the rule that `ebtables` keeps at its end
    const nlmsghdr* message = nullptr;

    // False when there is no list of expressions.
    bool readExpressions(Expressions& expressions) const;
};

// message: a whole one, of its own length.
RuleView readRule(const nlmsghdr* message);

// Appends the attributes for the expressions and the rule's ethertype, without which the kernel takes no match of
// ebtables.
void putExpressions(nlmsghdr* message, const Expressions& expressions);
void putElements(nlmsghdr* message, const Expressions& expressions); // the list's elements only
void putCompatibility(nlmsghdr* message, const std::optional<ebtables::EthertypeMatch>& ethertype);
void putChainPolicyMark(nlmsghdr* message);

// A mark as user data, of a kind that no other program has.
void putMark(nlmsghdr* message, int type, ebtables::Origin mark);
ebtables::Origin readMark(const nlattr* userData); // noOrigin when there is none
ebtables::Origin readMark(const RuleView& rule);

} // namespace nftables
