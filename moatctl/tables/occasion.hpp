// Who changes the configuration, and how: what the history keeps of a change besides its rows.
#pragma once

#include <cstdint>
#include <string>

namespace moatctl
{

// Each text is short and on one line.
struct Occasion {
    std::string user;
    std::string address; // that the user comes from; empty: not by SSH
    std::string host;
    std::string verb;
    std::int32_t undoes = 0; // the number of the change that is taken back
    std::int32_t trial = 0;  // seconds in which the change must be confirmed, or it goes back; 0: for good
};

} // namespace moatctl
