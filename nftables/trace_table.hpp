// A table of the bridge family that does nothing but choose the frames that the kernel traces.
#pragma once

#include "ebtables/command.hpp"
#include "nftables/batch.hpp"
#include "nftables/connection.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace nftables
{

struct TraceSelection {
    ebtables::Rule rule;       // its matches
    bool toDevice = true;      // frames for the device itself
    bool forwarded = true;     // frames for another port
    std::uint32_t limit = 100; // frames a second
};

// In this chain a frame that is traced has matched. It comes before all other tables of the family.
inline constexpr const char* selectingChain = "select";

// Makes the table whole in one connection's life: it goes when the connection does, whatever happens to the process.
// lasting: it does not, for kernels older than 5.12, which answer Unsupported otherwise.
Result addTraceTable(Connection& connection, const std::string& table, const TraceSelection& selection, bool lasting);

Result removeTable(Connection& connection, const std::string& table);

struct TraceCounts {
    std::uint64_t selected = 0;
    std::uint64_t traced = 0; // the others were over the limit
};

struct TableView {
    std::string name;
    bool isOwned = false; // it goes with the socket that made it
};

// All of the bridge family.
Result readTables(Connection& connection, std::vector<TableView>& tables);

// What the table has counted.
Result readTraceCounts(Connection& connection, const std::string& table, TraceCounts& counts);

} // namespace nftables
