#include "ebtables/operands.hpp"

#include "ebtables/names.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace ebtables
{

namespace
{

// The whole word as a number in the base, or nothing. No sign, no blank.
std::optional<unsigned> number(std::string_view word, int base)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (word.empty() || error != std::errc() || end != word.data() + word.size())
        return std::nullopt;
    return value;
}

bool isHexPrefixed(std::string_view word)
{
    return word.starts_with("0x") || word.starts_with("0X");
}

// Decimal without leading zeros (the tool would read those as octal), or hexadecimal behind 0x.
std::optional<unsigned> decimalOrHex(std::string_view word)
{
    if (isHexPrefixed(word))
        return number(word.substr(2), 16);
    if (word.size() > 1 && word.front() == '0')
        return std::nullopt;
    return number(word, 10);
}

std::optional<unsigned> hexadecimal(std::string_view word)
{
    return number(isHexPrefixed(word) ? word.substr(2) : word, 16);
}

RangeMatch single(unsigned value)
{
    return {static_cast<std::uint16_t>(value), static_cast<std::uint16_t>(value), false};
}

std::optional<std::array<std::uint8_t, 6>> macBytes(std::string_view word)
{
    std::array<std::uint8_t, 6> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t colon = i + 1 < bytes.size() ? word.find(':') : word.size();
        if (colon == std::string_view::npos || colon == 0 || colon > 2)
            return std::nullopt;
        const std::optional<unsigned> byte = number(word.substr(0, colon), 16);
        if (!byte)
            return std::nullopt;
        bytes[i] = static_cast<std::uint8_t>(*byte);
        word.remove_prefix(std::min(word.size(), colon + 1));
    }
    return bytes;
}

template <std::size_t N>
bool addressBytes(std::string_view word, std::array<std::uint8_t, N>& bytes)
{
    return inet_pton(N == 4 ? AF_INET : AF_INET6, std::string(word).c_str(), bytes.data()) == 1;
}

template <std::size_t N>
std::array<std::uint8_t, N> prefixMask(unsigned ones)
{
    std::array<std::uint8_t, N> mask{};
    for (unsigned bit = 0; bit < ones; ++bit)
        mask[bit / 8] = static_cast<std::uint8_t>(mask[bit / 8] | (0x80U >> (bit % 8)));
    return mask;
}

template <std::size_t N>
void applyMask(std::array<std::uint8_t, N>& address, const std::array<std::uint8_t, N>& mask)
{
    for (std::size_t i = 0; i < N; ++i)
        address[i] = static_cast<std::uint8_t>(address[i] & mask[i]);
}

} // namespace

std::optional<InterfaceMatch> parseInterface(std::string_view word)
{
    if (word.empty() || word.size() > maxInterfaceName)
        return std::nullopt;
    InterfaceMatch match;
    if (word.back() == '+') {
        match.prefix = true;
        word.remove_suffix(1);
    }
    const auto wrong = [](char c) {
        return c <= ' ' || c > '~' || std::string_view("/+\"\\!;$`|&<>(){}'*?[]~#^").find(c) != std::string_view::npos;
    };
    if (word.starts_with('-') || std::ranges::any_of(word, wrong))
        return std::nullopt;
    match.name = word;
    return match;
}

std::optional<MacMatch> parseMac(std::string_view word)
{
    MacMatch match;
    if (equalIgnoringCase(word, "Unicast") || equalIgnoringCase(word, "Multicast")) {
        match.mask = {1, 0, 0, 0, 0, 0};
        match.address[0] = equalIgnoringCase(word, "Multicast") ? 1 : 0;
        return match;
    }
    if (equalIgnoringCase(word, "Broadcast")) {
        match.address = match.mask;
        return match;
    }
    if (equalIgnoringCase(word, "BGA")) {
        match.address = {0x01, 0x80, 0xc2, 0, 0, 0};
        return match;
    }
    const std::size_t slash = word.find('/');
    const auto address = macBytes(word.substr(0, slash));
    if (!address)
        return std::nullopt;
    match.address = *address;
    if (slash != std::string_view::npos) {
        const auto mask = macBytes(word.substr(slash + 1));
        if (!mask || *mask == std::array<std::uint8_t, 6>{})
            return std::nullopt;
        match.mask = *mask;
    }
    applyMask(match.address, match.mask);
    return match;
}

std::optional<EthertypeMatch> parseEthertype(std::string_view word)
{
    if (const std::optional<unsigned> value = hexadecimal(word)) {
        if (*value < 0x600 || *value > 0xffff)
            return std::nullopt;
        return EthertypeMatch{static_cast<std::uint16_t>(*value), false, false};
    }
    if (equalIgnoringCase(word, "LENGTH"))
        return EthertypeMatch{0, true, false};
    const std::optional<std::uint16_t> named = ethertypeByName(word);
    return named ? std::optional(EthertypeMatch{*named, false, false}) : std::nullopt;
}

std::optional<EthertypeMatch> parseEncapsulated(std::string_view word)
{
    if (const std::optional<unsigned> value = hexadecimal(word)) {
        if (*value < 60 || *value > 0xffff) // the kernel takes no less than the shortest frame's length
            return std::nullopt;
        return EthertypeMatch{static_cast<std::uint16_t>(*value), false, false};
    }
    const std::optional<std::uint16_t> named = ethertypeByName(word);
    return named ? std::optional(EthertypeMatch{*named, false, false}) : std::nullopt;
}

template <std::size_t N>
std::optional<NetworkMatch<N>> parseNetwork(std::string_view word)
{
    NetworkMatch<N> match;
    const std::size_t slash = word.find('/');
    if (!addressBytes<N>(word.substr(0, slash), match.address))
        return std::nullopt;
    if (slash == std::string_view::npos) {
        match.mask = prefixMask<N>(8 * N);
        return match;
    }
    const std::string_view mask = word.substr(slash + 1);
    if (const std::optional<RangeMatch> ones = parseDecimal(mask, 8 * N)) {
        if (mask.size() > 1 && mask.front() == '0')
            return std::nullopt;
        match.mask = prefixMask<N>(ones->first);
    } else if (!addressBytes<N>(mask, match.mask)) {
        return std::nullopt;
    }
    applyMask(match.address, match.mask);
    return match;
}

template std::optional<NetworkMatch<4>> parseNetwork<4>(std::string_view);
template std::optional<NetworkMatch<16>> parseNetwork<16>(std::string_view);

std::optional<RangeMatch> parseIpProtocol(std::string_view word)
{
    if (const std::optional<unsigned> value = decimalOrHex(word))
        return *value <= 255 ? std::optional(single(*value)) : std::nullopt;
    const std::optional<std::uint8_t> named = ipProtocolByName(word);
    return named ? std::optional(single(*named)) : std::nullopt;
}

std::optional<RangeMatch> parsePorts(std::string_view word)
{
    const std::size_t colon = word.find(':');
    if (colon == std::string_view::npos) {
        const std::optional<unsigned> value = decimalOrHex(word);
        return value && *value <= 0xffff ? std::optional(single(*value)) : std::nullopt;
    }
    const std::string_view low = word.substr(0, colon);
    const std::string_view high = word.substr(colon + 1);
    const std::optional<unsigned> first = low.empty() ? 0U : decimalOrHex(low);
    const std::optional<unsigned> last = high.empty() ? 0xffffU : decimalOrHex(high);
    if (!first || !last || *last > 0xffff || *first > *last)
        return std::nullopt;
    return RangeMatch{static_cast<std::uint16_t>(*first), static_cast<std::uint16_t>(*last), false};
}

std::optional<RangeMatch> parseDecimal(std::string_view word, unsigned largest)
{
    const std::optional<unsigned> value = number(word, 10);
    return value && *value <= largest ? std::optional(single(*value)) : std::nullopt;
}

bool isChainName(std::string_view word)
{
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("._:,@%=+-").find(c) != std::string_view::npos;
    };
    return !word.empty() && word.size() <= maxChainName && word.front() != '-' && std::ranges::all_of(word, allowed);
}

} // namespace ebtables
