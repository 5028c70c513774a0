// Names that stand for numbers in command lines and in the tool's output. Compared without regard to case.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ebtables
{

std::optional<std::uint16_t> ethertypeByName(std::string_view name);
std::optional<std::uint8_t> ipProtocolByName(std::string_view name);
std::optional<int> logLevelByName(std::string_view name);

bool equalIgnoringCase(std::string_view left, std::string_view right);

} // namespace ebtables
