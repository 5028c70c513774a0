// The configuration data source that a handler reads its tables from.
#pragma once

#include "platform/value_list.hpp"

#include <cstdint>
#include <string>

namespace zol::cfg
{

// Whether a request to the source succeeded; text says why not, for a log line.
struct ConfigStatus {
    bool ok = true;
    std::string text;
};

// One consistent state of all tables. Row indices count from 0 in ascending order of column "Id" and stay
// valid while the handler's call lasts that was given the source. Reading costs no input or output.
// Ownership: the platform's; a handler never keeps the address. Threading: the daemon's one thread.
class IConfigReader
{
public:
    virtual ~IConfigReader() = default;

    // Sets rowCount to the number of rows of the table. Unknown table: rowCount stays as it is, status not ok.
    virtual ConfigStatus getRowCount(const std::string& tableName, std::uint32_t& rowCount) = 0;

    // Sets names to the row's column names and the values to the row's. Unknown table or index: both stay as
    // they are, status not ok.
    virtual ConfigStatus readRow(const std::string& tableName, std::uint32_t rowIndex, tessera::NameList& names,
                                 tessera::ValueList& values) = 0;
};

} // namespace zol::cfg
