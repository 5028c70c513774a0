// A change that waits to be confirmed: how long it still may, and what puts back what was before.
#pragma once

#include "ovsdb/operations.hpp"
#include "ovsdb/table_cache.hpp"
#include "schema/trial.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace schema
{

// The clocks of a machine. uptime never jumps, but means something in one run of the kernel only.
struct Clocks {
    std::string boot{}; // which run
    std::chrono::milliseconds uptime{};
    std::chrono::system_clock::time_point wall{};
};
Clocks readClocks();

struct Trial {
    ovsdb::Uuid uuid{};
    std::int32_t change = 0;
    std::int32_t seconds = 0;
    std::string began{};
    std::string boot{};
    std::string uptime{};
    std::string user{};
    std::string verb{};
    std::string changes{};
};

// The one that waits, if the table is held and has a row.
std::optional<Trial> trialOf(const ovsdb::TableCache& state);

// From 0 to all of its seconds. In the run of the kernel that the trial began in, its uptime decides; else, after a
// power cut or on another machine, the wall clock.
std::chrono::milliseconds remaining(const Trial& trial, const Clocks& now);

// The row that makes a change a trial.
ovsdb::Json beginTrial(const Trial& trial, const Clocks& now);

// Makes the transaction fail with "timed out" unless no trial waits, or this one does.
ovsdb::Json requireNoTrial();
ovsdb::Json requireTrial(const Trial& trial);
ovsdb::Json endTrial(const Trial& trial);

// A transaction that puts back what was before; of several clients that send it one succeeds, the others' fails as
// requireTrial says. Its last result is the number of this change. entry: what the history keeps of that, without
// Number, Rows, Changes, Undoes and Sum; nothing: no entry. state: the tables as they are. Throws ovsdb::Error when the
// trial's text is not as it should be.
std::vector<ovsdb::Json> putBack(const Trial& trial, const ovsdb::TableCache& state,
                                 const std::optional<ovsdb::ColumnValues>& entry);

} // namespace schema
