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

void writeLine(std::ostream& out, const std::vector<std::string>& cells, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += cells[i];
        if (i + 1 < cells.size())
            line.append(widths[i] - cells[i].size() + 2, ' ');
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
            widths[i] = std::max(widths[i], cells[i].size());
    };
    if (headings)
        measure(sheet.headings);
    for (const std::vector<Cell>& row : sheet.rows) {
        std::vector<std::string>& cells = lines.emplace_back();
        cells.reserve(row.size());
        for (const Cell& cell : row)
            cells.push_back(text::oneLine(textOf(cell), std::string::npos));
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

void writeSheets(std::ostream& out, const std::vector<Sheet>& sheets, const OutputStyle& style, bool colour)
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
            out << (colour ? "\033[1m" : "") << sheet.title << (colour ? "\033[0m" : "") << '\n';
        writeTable(out, sheet, !style.noHeadings, colour);
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
