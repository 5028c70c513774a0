// Writes rows as a table for people, as JSON or as CSV.
#pragma once

#include "moatctl/command_line/options.hpp"
#include "platform/value_list.hpp"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace moatctl
{

enum class Format { Table, Json, Csv };

// Where the output goes.
struct Terminal {
    bool obeys = false;     // escape sequences
    bool colour = false;    // headings stand out
    std::size_t width = 0;  // 0: no terminal
    std::size_t height = 0; // likewise
};

struct OutputStyle {
    Format format = Format::Table;
    bool noHeadings = false;
};

// --format and --no-headings; the style must outlive the parsing.
void addOutputOptions(const Command& command, OutputStyle& style);

// A value of the configuration, a larger number, or nothing (null in JSON, else empty).
using Cell = std::variant<std::monostate, tessera::Value, std::uint64_t>;

struct Sheet {
    std::string name;  // in JSON and CSV
    std::string title; // above the table
    std::vector<std::string> headings;
    std::vector<std::vector<Cell>> rows; // as many cells as headings
    // Of a cell in a table that stands out, by what it says: the numbers of an escape sequence, such as "31"; "" for
    // the others.
    const char* (*colourOf)(std::string_view cell) = nullptr;
};

// Table: a title when there are several sheets, headings, aligned columns; what is not printable ASCII is
// written as \\xNN, so that a terminal obeys none of it. Where a terminal is too narrow, the last column is wrapped, or
// if that is not enough, each row becomes a list of its values. JSON: one object, a list of objects per sheet. CSV (RFC
// 4180): headings and rows; when there are several sheets, each row begins with the sheet's name and an empty line
// stands between the sheets.
void writeSheets(std::ostream& out, const std::vector<Sheet>& sheets, const OutputStyle& style,
                 const Terminal& terminal);

// A CSV field: quoted when it has to be.
std::string csvField(std::string_view text);

} // namespace moatctl
