// Which server, and how: from the command line, the environment, and files, in this order.
#pragma once

#include "endpoint/endpoint.hpp"

#include <map>
#include <string>
#include <vector>

namespace moatctl
{

struct Program;

// Of a setting that may stand in all three.
struct Setting {
    const char* key;      // in a file; --KEY on the command line
    const char* variable; // in the environment
    const char* type;
    const char* help;
};
const std::vector<Setting>& allSettings();

// Values as they were given, and where.
struct GivenSetting {
    std::string value;
    std::string place; // "--server", or "MOATCTL_SERVER", or a file's name and the key
};
using GivenSettings = std::map<std::string, GivenSetting>;

// Those that the command line does not have are taken from the environment, then from the file that --settings names,
// or else from the user's and then the machine's. Sets what they say in the program. Throws Failure(BadInput): where,
// the value, what was expected; also for a file that others than its owner can change.
void applySettings(Program& program);

} // namespace moatctl
