// The configuration tables as the handler's readers see them: the server's rows, without those that have a text which
// would not be one operand of a command line. Such a row is left out whole, and the log says so once.
#pragma once

#include "ovsdb/table_cache.hpp"
#include "platform/config_reader.hpp"
#include "platform/sysloglevel.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zol::cfg
{

// Reads the named ones of the tables given, which must outlive it; update must have been called since they last
// changed.
class DeliveredRows : public IConfigReader
{
public:
    DeliveredRows(const ovsdb::TableCache& tables, const std::vector<std::string>& tableNames,
                  ZOL_Sysloglevel_Module logModule);

    // Looks through tables that are other ones now. A line is logged for a row that is left out from now on, and for
    // one that is left out for another value than before.
    void update(const std::set<std::string>& changedTables);

    // These rows, by their tables, are delivered in place of the server's until the next call. update must follow for
    // the tables that it names now and those that it named before.
    using Rows = std::map<std::string, std::vector<ovsdb::Row>, std::less<>>;
    void deliverInstead(Rows rows) { m_instead = std::move(rows); }

    ConfigStatus getRowCount(const std::string& tableName, std::uint32_t& rowCount) override;
    ConfigStatus readRow(const std::string& tableName, std::uint32_t rowIndex, tessera::NameList& names,
                         tessera::ValueList& values) override;

private:
    struct View {
        tessera::NameList columns;
        std::vector<std::uint32_t> rows;            // which of the table's rows are delivered, in their order
        std::map<ovsdb::Uuid, std::size_t> leftOut; // a hash of the column and the value that are the reason
    };
    void look(const std::string& tableName, View& view);
    std::span<const ovsdb::Row> rowsOf(const std::string& tableName) const;

    const ovsdb::TableCache& m_tables;
    Rows m_instead;
    const ZOL_Sysloglevel_Module m_logModule;
    std::map<std::string, View, std::less<>> m_views;
};

} // namespace zol::cfg
