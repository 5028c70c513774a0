// What a value may be: what the server, the daemon and the kernel's tool take.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// Nothing when the value is fine in itself, else `"xy": expected a MAC address ...`.
std::optional<std::string> wrongValue(const schema::Column& column, const tessera::Value& value);

// All that is wrong with a row: each value in itself, values that exclude each other (a port without a protocol, an
// address of another family than the ethertype), and what the filter of a filter rule says about it. Warnings: values
// without effect.
std::vector<Problem> checkRow(const Configuration& configuration, const Row& row);

// A value as a person writes it in the form in which the table holds it: "tcp" becomes "TCP", "ipv4" and "0x0800"
// become "IPv4", "none" unsets a VLAN or a port. Throws Failure(BadInput), beginning with what the value is of.
tessera::Value fromPerson(const schema::Column& column, const std::string& text, std::string_view what);

// Nothing unless the whole text is a decimal number of 32 bits.
std::optional<std::int32_t> parseNumber(std::string_view text);

} // namespace moatctl
