// Parses and checks `ebtables` command lines. Nothing is carried out here.
//
// What it accepts is what ebtables takes: a line without an error here is refused by the tool only for what the
// kernel's tables hold at that moment (a chain that is missing, a rule that is not there).
// Threading: no shared state. No operation throws but std::bad_alloc.
#pragma once

#include "ebtables/command.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebtables
{

// The longest line that is looked at, in bytes.
inline constexpr std::size_t maxLine = 4096;

// Why a line is refused.
struct LineError {
    std::string word;     // the word that is wrong, control characters made visible; "" when words are missing
    std::string option;   // the option that the word belongs to, or ""
    std::string expected; // what was expected instead

    // One line for a person: `word "300.1.1.1" of --ip-source: expected an IPv4 address ...`.
    std::string text() const;
};

struct ParsedLine {
    std::vector<Command> commands; // in the order of the line; empty for an empty line and when there is an error
    std::optional<LineError> error;
};

// Parses a whole line as the daemon queues it: `ebtables` and its options, words separated by blanks, double quotes
// around a word with blanks, several commands separated by `;`. An error anywhere refuses the whole line.
ParsedLine parseLine(std::string_view line);

// Parses a rule's options, as toText or ebtables-save write them, for the given chain. Returns nothing and sets
// error (when given) if they are not of the forms that this parser knows.
std::optional<Rule> parseRule(std::string_view options, const std::string& chain, LineError* error = nullptr);

} // namespace ebtables
