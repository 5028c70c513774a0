// Text of any origin made safe for a page.
#pragma once

#include <string>
#include <string_view>

namespace moatctl
{

// For the text of an element and for an attribute in quotes: no byte of it is markup. What is not printable ASCII is
// written as \xNN.
std::string html(std::string_view text);

} // namespace moatctl
