#include "moatctl/command_line/sheets.hpp"

#include "moatctl/tables/kernel_order.hpp"

#include <algorithm>

namespace moatctl
{

namespace
{

tessera::Value forPeople(const schema::Column& column, const tessera::Value& value)
{
    const bool nothing = value.isText()                     ? value.getText().empty()
                         : column.kind == ValueKind::VlanId ? value.getInteger() == -1
                         : column.kind == ValueKind::Port   ? value.getInteger() == 0
                                                            : false;
    if (nothing)
        return tessera::Value(std::string("-"));
    if (column.kind == ValueKind::Switch)
        return tessera::Value(std::string(value.getInteger() == 1   ? "yes"
                                          : value.getInteger() == 0 ? "no"
                                                                    : toText(value)));
    return value;
}

} // namespace

Sheet sheetOf(const Configuration& configuration, TableId id, Format format)
{
    const schema::Table& table = schema::table(id);
    const std::vector<const Row*> rows = inKernelOrder(configuration, id);
    const bool people = format == Format::Table;

    // A column that is at its default everywhere only makes the table wide.
    std::vector<std::size_t> shown;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const bool optional =
            !table.columns[i].required && table.columns[i].kind != ValueKind::Switch && table.hasIds();
        if (people && optional && std::ranges::all_of(rows, [&](const Row* row) {
                return row->values[i] == table.columns[i].defaultValue();
            }))
            continue;
        shown.push_back(i);
    }

    Sheet sheet{.name = std::string(table.name), .title = std::string(table.title), .headings = {}, .rows = {}};
    for (const std::size_t i : shown)
        sheet.headings.emplace_back(people ? table.columns[i].heading : table.columns[i].name);
    sheet.rows.reserve(rows.size());
    for (const Row* row : rows) {
        std::vector<Cell>& cells = sheet.rows.emplace_back();
        cells.reserve(shown.size());
        for (const std::size_t i : shown)
            cells.emplace_back(people ? forPeople(table.columns[i], row->values[i]) : row->values[i]);
    }
    return sheet;
}

} // namespace moatctl
