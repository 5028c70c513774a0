// A row of a configuration table.
#pragma once

#include "platform/value_list.hpp"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ovsdb
{

// The server's own name of a row.
struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    auto operator<=>(const Uuid&) const = default;
    std::string toText() const;
    // Nothing unless the text is a UUID in its usual form of 36 characters.
    static std::optional<Uuid> fromText(std::string_view text);
};

struct Row {
    Uuid uuid;
    std::vector<tessera::Value> values; // one per column, in the order of Table::columns; unset ones are filled in

    bool operator==(const Row&) const = default;
};

// What the row takes in memory, nearly.
std::size_t memoryOf(const Row& row);

} // namespace ovsdb
