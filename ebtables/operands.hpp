// Operands of options, one parser a kind. Each returns nothing when the word is not of its kind.
#pragma once

#include "ebtables/command.hpp"

#include <optional>
#include <string_view>

namespace ebtables
{

inline constexpr const char* chainExpected =
    "a chain name: 1 to 255 letters, digits and . _ : , @ % = + - that does not begin with -";

std::optional<InterfaceMatch> parseInterface(std::string_view word); // "+" gives an empty name with prefix set
std::optional<MacMatch> parseMac(std::string_view word);
std::optional<EthertypeMatch> parseEthertype(std::string_view word);
std::optional<EthertypeMatch> parseEncapsulated(std::string_view word);
template <std::size_t N>
std::optional<NetworkMatch<N>> parseNetwork(std::string_view word);
std::optional<RangeMatch> parseIpProtocol(std::string_view word);
std::optional<RangeMatch> parsePorts(std::string_view word);
std::optional<RangeMatch> parseDecimal(std::string_view word, unsigned largest); // one number
bool isChainName(std::string_view word);

} // namespace ebtables
