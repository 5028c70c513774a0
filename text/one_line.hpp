// Text of any origin made safe for one line of a message: no byte of it ends the line or is obeyed by a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace text
{

// Every byte that is not printable ASCII is written as \xNN; what exceeds `limit` bytes is cut, and "..." says so.
std::string oneLine(std::string_view text, std::size_t limit = 200);

// The same in quotation marks: "eth0".
std::string inQuotes(std::string_view text, std::size_t limit = 80);

// A byte as \xNN.
std::string escaped(char byte);

} // namespace text
