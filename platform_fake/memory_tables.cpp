#include "platform_fake/memory_tables.hpp"

namespace fake
{

Row& Row::set(std::string_view column, tessera::Value value)
{
    m_values.setValue(column, std::move(value));
    return *this;
}

void MemoryTables::setRows(const std::string& tableName, std::vector<Row> rows)
{
    m_tables[tableName] = std::move(rows);
}

void MemoryTables::addRow(const std::string& tableName, Row row)
{
    m_tables[tableName].push_back(std::move(row));
}

void MemoryTables::removeTable(const std::string& tableName)
{
    m_tables.erase(tableName);
}

const std::vector<Row>* MemoryTables::rows(const std::string& tableName) const
{
    const auto found = m_tables.find(tableName);
    return found != m_tables.end() ? &found->second : nullptr;
}

zol::cfg::ConfigStatus MemoryTables::getRowCount(const std::string& tableName, std::uint32_t& rowCount)
{
    if (onGetRowCount) {
        if (zol::cfg::ConfigStatus status = onGetRowCount(tableName); !status.ok)
            return status;
    }
    const std::vector<Row>* held = rows(tableName);
    if (held == nullptr)
        return {false, "no table \"" + tableName + "\""};
    rowCount = static_cast<std::uint32_t>(held->size());
    return {};
}

zol::cfg::ConfigStatus MemoryTables::readRow(const std::string& tableName, std::uint32_t rowIndex,
                                             tessera::NameList& names, tessera::ValueList& values)
{
    if (onReadRow) {
        if (zol::cfg::ConfigStatus status = onReadRow(tableName, rowIndex); !status.ok)
            return status;
    }
    const std::vector<Row>* held = rows(tableName);
    if (held == nullptr || rowIndex >= held->size())
        return {false, "no row " + std::to_string(rowIndex) + " in table \"" + tableName + "\""};
    values = (*held)[rowIndex].values();
    values.getNames(names);
    return {};
}

} // namespace fake
