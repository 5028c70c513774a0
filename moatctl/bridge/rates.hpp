// How many frames a second the kernel's rules meet: what two looks at its counters differ by.
#pragma once

#include "moatctl/bridge/compare.hpp"
#include "moatctl/bridge/expected.hpp"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

struct Rate {
    const Row* row = nullptr;     // null: a rule that no row has made
    const Entry* entry = nullptr; // the row's first rule
    double frames = 0;            // a second
    double bytes = 0;
    std::optional<double> share; // of the frames that rules have decided, 0 to 1; nothing when the row decides none
};

class Rates
{
public:
    using Time = std::chrono::steady_clock::time_point;

    // Since the call before, the most frames first; empty at the first call. A rule that is new has counted from 0. The
    // daemon's own rules, through which every frame comes, are left out. Points into what it is given.
    std::vector<Rate> next(const Applied& applied, const std::vector<Entry>& entries, Time time);

    // Between the two last calls.
    std::chrono::duration<double> interval() const { return m_interval; }

private:
    std::map<std::string, ebtables::Counters> m_last; // by chain, text, and which of the equal ones
    std::optional<Time> m_time;
    std::chrono::duration<double> m_interval{};
};

} // namespace moatctl
