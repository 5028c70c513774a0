// How far the bridge tables are what the commits asked for. Plain values.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zol::cfg
{

// A line that was to put something in force, and does not.
struct NotInForce {
    std::string line;
    std::string reason;

    bool operator==(const NotInForce&) const = default;
};

// Another program's change of what is ours, which was put right.
struct Repair {
    std::chrono::system_clock::time_point when;
    std::string what; // who changed what

    bool operator==(const Repair&) const = default;
};

struct QueueStatus {
    bool inStep = false;   // a commit was carried out, and nothing waits since
    std::string reason{};  // why something waits
    std::size_t rules = 0; // of ours in the kernel, jumps included; 0 with a legacy tool, which is not asked
    std::vector<NotInForce> notInForce{}; // the first of them
    std::size_t notInForceCount = 0;      // all
    std::optional<Repair> lastRepair{};
    std::string form{}; // "plain" or "compiled"; "plain: " and why not compiled
};

} // namespace zol::cfg
