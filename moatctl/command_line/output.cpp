#include "moatctl/command_line/output.hpp"

#include "moatctl/command_line/errors.hpp"

#include "moatctl/tables/configuration.hpp"
#include "ovsdb/json.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <ostream>

namespace moatctl
{

namespace
{

// Control characters would be obeyed by a terminal.
std::string visible(std::string text)
{
    const auto isControl = [](unsigned char byte) { return byte < ' ' || byte == 0x7f; };
    if (std::ranges::none_of(text, isControl))
        return text;
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (!isControl(byte)) {
            result += character;
            continue;
        }
        std::array<char, 8> code{};
        std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned>(byte));
        result += code.data();
    }
    return result;
}

std::string textOf(const Cell& cell)
{
    if (const auto* value = std::get_if<tessera::Value>(&cell))
        return toText(*value);
    const auto* number = std::get_if<std::uint64_t>(&cell);
    return number != nullptr ? std::to_string(*number) : std::string();
}

// Characters of UTF-8 text, not bytes.
std::size_t width(std::string_view text)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U; }));
}

void writeLine(std::ostream& out, const std::vector<std::string>& cells, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += cells[i];
        if (i + 1 < cells.size())
            line.append(widths[i] - width(cells[i]) + 2, ' ');
    }
    out << line << '\n';
}

void writeTable(std::ostream& out, const Sheet& sheet, bool headings, bool colour)
{
    std::vector<std::vector<std::string>> lines;
    lines.reserve(sheet.rows.size());
    std::vector<std::size_t> widths(sheet.headings.size(), 0);
    const auto measure = [&widths](const std::vector<std::string>& cells) {
        for (std::size_t i = 0; i < cells.size(); ++i)
            widths[i] = std::max(widths[i], width(cells[i]));
    };
    if (headings)
        measure(sheet.headings);
    for (const std::vector<Cell>& row : sheet.rows) {
        std::vector<std::string>& cells = lines.emplace_back();
        cells.reserve(row.size());
        for (const Cell& cell : row)
            cells.push_back(visible(textOf(cell)));
        measure(cells);
    }
    if (headings) {
        out << (colour ? "\033[1m" : "");
        writeLine(out, sheet.headings, widths);
        out << (colour ? "\033[0m" : "");
    }
    for (const std::vector<std::string>& cells : lines)
        writeLine(out, cells, widths);
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

void addOutputOptions(CLI::App& app, OutputStyle& style)
{
    static const std::map<std::string, Format> formats{
        {"table", Format::Table}, {"json", Format::Json}, {"csv", Format::Csv}};
    app.add_option_function<std::string>(
           "--format", [&style](const std::string& name) { style.format = formats.at(name); }, "Form of the output")
        ->check(oneOf({"table", "json", "csv"}))
        ->type_name("table|json|csv")
        ->default_str("table");
    app.add_flag_function(
        "--no-headings", [&style](std::int64_t) { style.headings = false; }, "Leave out titles and headings");
}

void writeSheets(std::ostream& out, const std::vector<Sheet>& sheets, const OutputStyle& style, bool colour)
{
    if (style.format == Format::Json) {
        writeJson(out, sheets);
        return;
    }
    for (const Sheet& sheet : sheets) {
        if (&sheet != &sheets.front() && style.headings)
            out << (style.format == Format::Csv ? "\r\n" : "\n");
        if (style.format == Format::Csv) {
            writeCsv(out, sheet, style.headings, sheets.size() > 1);
            continue;
        }
        if (style.headings && sheets.size() > 1)
            out << (colour ? "\033[1m" : "") << sheet.title << (colour ? "\033[0m" : "") << '\n';
        writeTable(out, sheet, style.headings, colour);
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
