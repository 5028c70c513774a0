// Reads a server's description of one row's change.
#pragma once

#include "ovsdb/database.hpp"
#include "ovsdb/json.hpp"
#include "ovsdb/row.hpp"

#include <functional>
#include <string>
#include <string_view>

namespace ovsdb
{

// The two forms in which a server describes changes.
enum class UpdateFormat {
    OldAndNew, // "update": rows before and after
    Difference // "update2", "update3": only what differs
};

enum class ChangeKind { Insert, Modify, Delete };

struct RowChange {
    ChangeKind kind = ChangeKind::Insert;
    Row row; // after the change; without values when it goes
};

// The row as it is before the change, nullptr when there is none.
using FindRow = std::function<const Row*(const Uuid& uuid)>;

// name: the row's, which should be a UUID. Throws ProtocolError when the change does not fit the table: unknown column,
// wrong kind, integer outside 32 bits, missing column, no such row to modify or delete. Whether there is a row already
// that is to be inserted is not looked at.
RowChange readChange(const Table& table, std::string_view name, const Json& change, UpdateFormat format,
                     const FindRow& before);

// Names come from the peer: a message shows no more than 64 bytes of them, in quotes and without control characters.
std::string shownName(std::string_view text);

} // namespace ovsdb
