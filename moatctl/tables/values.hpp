// What a value may be: what the server, the daemon and the kernel's tool take.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace moatctl
{

// Nothing when the value is fine in itself, else what expectedInstead says.
std::optional<std::string> wrongValue(const schema::Column& column, const tessera::Value& value);

// `"xy": expected a MAC address ...`
std::string expectedInstead(const schema::Column& column, const tessera::Value& value);

// A value as a person writes it in the form in which the table holds it: "tcp" becomes "TCP", "ipv4" and "0x0800"
// become "IPv4", "none" unsets a VLAN or a port. An empty text is no value. Throws Failure(BadInput), beginning with
// what the value is of.
tessera::Value fromPerson(const schema::Column& column, const std::string& text, std::string_view what);

// Nothing unless the whole text is a decimal number of 32 bits.
std::optional<std::int32_t> parseNumber(std::string_view text);

// The daemon hands values on as they are, so that "! " in front means everything else. This is what follows it.
std::string_view withoutNot(std::string_view text);

// A VLAN id from 0 to 4094.
bool isVlanMatch(std::string_view text);

std::string lowerCase(std::string text);

} // namespace moatctl
