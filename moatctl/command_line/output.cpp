#include "moatctl/command_line/output.hpp"

#include "moatctl/tables/configuration.hpp"
#include "ovsdb/json.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <map>
#include <ostream>

namespace moatctl
{

namespace
{

std::string textOf(const Cell& cell)
{
    if (const auto* value = std::get_if<tessera::Value>(&cell))
        return toText(*value);
    const auto* number = std::get_if<std::uint64_t>(&cell);
    return number != nullptr ? std::to_string(*number) : std::string();
}

constexpr std::size_t gap = 2;            // between columns
constexpr std::size_t narrowestLast = 20; // of a last column that is wrapped

using Line = std::vector<std::string>;

using ColourOf = const char* (*)(std::string_view cell);

// colourOf: null for none.
std::string painted(const std::string& cell, ColourOf colourOf)
{
    const std::string colour = colourOf != nullptr ? colourOf(cell) : "";
    return colour.empty() ? cell : "\033[" + colour + "m" + cell + "\033[0m";
}

// The last cell in pieces of that width, broken at blanks where there are any.
void writeLine(std::ostream& out, const Line& cells, const std::vector<std::size_t>& widths, std::size_t lastWidth,
               ColourOf colourOf = nullptr)
{
    std::string line;
    std::size_t indented = 0;
    for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
        line += painted(cells[i], colourOf);
        line.append(widths[i] - cells[i].size() + gap, ' ');
        indented += widths[i] + gap;
    }
    if (cells.back().size() <= lastWidth) {
        out << line << painted(cells.back(), colourOf) << '\n';
        return;
    }
    const std::string indent(indented, ' ');
    std::string_view rest = cells.back();
    while (rest.size() > lastWidth) {
        std::size_t end = rest.rfind(' ', lastWidth);
        end = end == std::string_view::npos || end == 0 ? lastWidth : end;
        out << line << rest.substr(0, end) << '\n';
        rest.remove_prefix(end + (rest[end] == ' ' ? 1 : 0));
        line = indent;
    }
    out << line << rest << '\n';
}

// One value a line.
void writeLists(std::ostream& out, const Sheet& sheet, const std::vector<Line>& lines, bool headings,
                const Terminal& terminal)
{
    std::size_t width = 0;
    for (const std::string& heading : sheet.headings)
        width = std::max(width, heading.size());
    for (const Line& cells : lines) {
        if (&cells != &lines.front())
            out << '\n';
        for (std::size_t i = 0; i < cells.size(); ++i) {
            if (headings)
                out << (terminal.colour ? "\033[1m" : "") << sheet.headings[i] << (terminal.colour ? "\033[0m" : "")
                    << std::string(width - sheet.headings[i].size() + gap, ' ');
            out << cells[i] << '\n';
        }
    }
}

void writeTable(std::ostream& out, const Sheet& sheet, bool headings, const Terminal& terminal)
{
    std::vector<Line> lines;
    lines.reserve(sheet.rows.size());
    std::vector<std::size_t> widths(sheet.headings.size(), 0);
    const auto measure = [&widths](const Line& cells) {
        for (std::size_t i = 0; i < cells.size(); ++i)
            widths[i] = std::max(widths[i], cells[i].size());
    };
    if (headings)
        measure(sheet.headings);
    for (const std::vector<Cell>& row : sheet.rows) {
        Line& cells = lines.emplace_back();
        cells.reserve(row.size());
        for (const Cell& cell : row)
            cells.push_back(text::oneLine(textOf(cell), std::string::npos));
        measure(cells);
    }

    std::size_t before = 0; // what stands before the last column
    for (std::size_t i = 0; i + 1 < widths.size(); ++i)
        before += widths[i] + gap;
    std::size_t lastWidth = std::string::npos;
    if (terminal.width != 0 && before + widths.back() > terminal.width) {
        if (before + std::min(widths.back(), narrowestLast) > terminal.width)
            return writeLists(out, sheet, lines, headings, terminal);
        lastWidth = terminal.width - before;
    }
    if (headings) {
        out << (terminal.colour ? "\033[1m" : "");
        writeLine(out, sheet.headings, widths, std::string::npos);
        out << (terminal.colour ? "\033[0m" : "");
    }
    for (const Line& cells : lines)
        writeLine(out, cells, widths, lastWidth, terminal.colour ? sheet.colourOf : nullptr);
}

void writeCsv(std::ostream& out, const Sheet& sheet, bool headings, bool withName)
{
    const auto writeRow = [&out](const std::string& first, const auto& values, const auto& asText) {
        std::string line = first;
        for (const auto& value : values) {
            if (!line.empty() || &value != &values.front())
                line += ',';
            line += csvField(asText(value));
        }
        out << line << "\r\n";
    };
    if (headings)
        writeRow(withName ? "Table" : "", sheet.headings, [](const std::string& text) { return text; });
    for (const std::vector<Cell>& row : sheet.rows)
        writeRow(withName ? csvField(sheet.name) : "", row, [](const Cell& cell) { return textOf(cell); });
}

std::string jsonText(const Cell& cell)
{
    if (std::holds_alternative<std::monostate>(cell))
        return "null";
    const auto* value = std::get_if<tessera::Value>(&cell);
    return value != nullptr && value->isText() ? ovsdb::toText(ovsdb::Json(value->getText())) : textOf(cell);
}

void writeJson(std::ostream& out, const std::vector<Sheet>& sheets)
{
    out << "{\n";
    for (const Sheet& sheet : sheets) {
        std::vector<std::string> names;
        for (const std::string& heading : sheet.headings)
            names.push_back(ovsdb::toText(ovsdb::Json(heading)) + ": ");
        out << "  " << ovsdb::toText(ovsdb::Json(sheet.name)) << ": [";
        for (const std::vector<Cell>& row : sheet.rows) {
            out << (&row == &sheet.rows.front() ? "\n    {" : ",\n    {");
            for (std::size_t i = 0; i < row.size(); ++i)
                out << (i == 0 ? "" : ", ") << names[i] << jsonText(row[i]);
            out << '}';
        }
        out << (sheet.rows.empty() ? "]" : "\n  ]") << (&sheet == &sheets.back() ? "\n" : ",\n");
    }
    out << "}\n";
}

} // namespace

void addOutputOptions(const Command& command, OutputStyle& style)
{
    static const std::map<std::string, Format> formats{
        {"table", Format::Table}, {"json", Format::Json}, {"csv", Format::Csv}};
    command
        .option("--format", "table|json|csv", "Form of the output",
                [&style](const std::string& name) { style.format = formats.at(name); })
        .oneOf({"table", "json", "csv"})
        .defaultsTo("table");
    command.flag("--no-headings", "Leave out titles and headings", style.noHeadings);
}

void writeSheets(std::ostream& out, const std::vector<Sheet>& sheets, const OutputStyle& style,
                 const Terminal& terminal)
{
    if (style.format == Format::Json) {
        writeJson(out, sheets);
        return;
    }
    for (const Sheet& sheet : sheets) {
        if (&sheet != &sheets.front() && !style.noHeadings)
            out << (style.format == Format::Csv ? "\r\n" : "\n");
        if (style.format == Format::Csv) {
            writeCsv(out, sheet, !style.noHeadings, sheets.size() > 1);
            continue;
        }
        if (!style.noHeadings && sheets.size() > 1)
            out << (terminal.colour ? "\033[1m" : "") << sheet.title << (terminal.colour ? "\033[0m" : "") << '\n';
        writeTable(out, sheet, !style.noHeadings, terminal);
    }
}

std::string csvField(std::string_view text)
{
    if (text.find_first_of(",\"\r\n") == std::string_view::npos)
        return std::string(text);
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"')
            result += '"';
        result += character;
    }
    return result + '"';
}

} // namespace moatctl
