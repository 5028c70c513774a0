// The operations of a transaction, and what became of them.
#pragma once

#include "ovsdb/json.hpp"
#include "ovsdb/table_cache.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ovsdb
{

// Column values to be written. No value unsets an optional column.
using ColumnValues = std::vector<std::pair<std::string, std::optional<tessera::Value>>>;

// Which rows an operation is about.
using Where = Json;
Where everyRow();
Where rowWithUuid(const Uuid& uuid);
Where rowsWith(std::string_view column, std::string_view text);
Where rowsWith(const ColumnValues& values);                     // all of them; each has a value
Where rowsUpTo(std::string_view column, std::int32_t greatest); // not above that number

// One operation each, to be put in the list that Client::transact takes. Columns left out of an insert get their
// defaults; columns left out of an update stay.
Json insertRow(std::string_view tableName, const ColumnValues& values);
// With a name for the row that is chosen here, which servers since 2.13 take.
Json insertRow(std::string_view tableName, const ColumnValues& values, const Uuid& uuid);
Json updateRows(std::string_view tableName, const Where& where, const ColumnValues& values);
Json deleteRows(std::string_view tableName, const Where& where);

// Adds to the number in every row of the table, starting again from 0 at the limit, and gives the number back as
// Outcome::number of the last of these operations.
std::vector<Json> countUp(std::string_view tableName, std::string_view column, std::int32_t limit);

// Makes the transaction fail with "timed out" unless the row still has these values: for a change that was decided upon
// from a copy.
Json requireRow(const Table& table, const Row& row);
// Likewise unless the rows with this number in the column are those of these Ids and no others.
Json requireOnlyRows(std::string_view tableName, std::string_view column, std::int32_t number,
                     const std::vector<std::int32_t>& ids);

// What became of one operation. An operation behind a failed one was not tried: neither done nor an error.
struct Outcome {
    bool done = false;
    std::int64_t count = 0;             // rows changed or deleted
    std::optional<Uuid> uuid;           // the row inserted
    std::optional<std::int32_t> number; // the one read
    std::string error;                  // the server's short name of the error ("constraint violation"); "" when none
    std::string details;                // the server's explanation, one line
};

struct TransactionResult {
    std::vector<Outcome> outcomes;       // one per operation, in order
    std::optional<Outcome> commitFailed; // each operation was fine, the whole was not (an Id used twice)

    // Whether everything was done; if not, nothing was.
    bool committed() const;
    // The error of the whole: "error: details", without a line break. Empty when committed.
    std::string errorText() const;
    // The index of the operation that failed; nothing when committed or when only the whole failed.
    std::optional<std::size_t> failedOperation() const;
};

} // namespace ovsdb
