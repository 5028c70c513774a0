// A row of a configuration table.
#pragma once

#include "platform/value_list.hpp"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
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

// The values of a row, one per column in the order of Table::columns. A plain value that takes a third of the memory of
// a list of tessera::Value: a large configuration is held for as long as the program runs.
class RowValues
{
public:
    RowValues() = default;
    explicit RowValues(std::span<const tessera::Value> values);

    std::size_t size() const { return m_cells.size(); }
    tessera::Value operator[](std::size_t column) const;
    std::vector<tessera::Value> toList() const;

    // Without a copy, valid while this lives unchanged: the empty text when the value is none.
    std::string_view text(std::size_t column) const;
    // 0 when the value is a text.
    std::int32_t integer(std::size_t column) const;

    // What they take in memory, nearly.
    std::size_t memory() const { return m_cells.size() * sizeof(Cell) + m_texts.size(); }

    bool operator==(const RowValues&) const = default;

private:
    struct Cell {
        std::uint32_t number = 0; // the integer, or where its text ends
        bool isText = false;
        bool operator==(const Cell&) const = default;
    };
    std::vector<Cell> m_cells;
    std::string m_texts; // of all columns, one after the other
};

struct Row {
    Uuid uuid;
    RowValues values; // unset ones are filled in

    bool operator==(const Row&) const = default;
};

// What the row takes in memory, nearly.
std::size_t memoryOf(const Row& row);

} // namespace ovsdb
