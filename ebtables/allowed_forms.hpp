// Which command lines moatkeeper's handler makes, as a table, and whether a line is one of them.
//
// parseLine says whether a line is one of ebtables. That is far more than the handler has reason to write: a line of
// another form is a value of a row that got out of its place, and is refused whatever it means.
// Threading: no shared state. No operation throws but std::bad_alloc.
#pragma once

#include "ebtables/line_parser.hpp"

#include <optional>
#include <span>
#include <string_view>

namespace ebtables
{

// One way to write what `name` stands for. In `form`:
//   -A, INPUT, RETURN ...   the word itself
//   ;                       between two commands, or at the end of the line
//   [ ... ]                 may be left out
//   {rule}                  any form of that name
//   <filter>                the chain of a filter, by its name
//   <accepted>, <denied>    the prefix of a log line, in quotes
//   <ports>, <mac> ...      an operand, one word without quotes, also with a ! before it; its kind is parseLine's
//   affair
// The word `ebtables` before every command is left out.
struct Form {
    std::string_view name;
    std::string_view form;
};

// A line is one of the forms named "line". Lives for ever.
std::span<const Form> allowedForms();

// Why the line is not of a form that is allowed; nothing when it is. Also looks at whether the two commands of a line
// with `;` belong together: the same chain, the same jump in both directions, and a chain that is named after the ports
// of the jump. The empty line is allowed. Its operands are not looked at: for that there is parseLine.
std::optional<LineError> whyNotAllowed(std::string_view line);

// Whether the name is one that the handler gives to the chain of a filter: its priority, ports, criteria and mode, or
// FilterID and a number.
bool isFilterChain(std::string_view name);

} // namespace ebtables
