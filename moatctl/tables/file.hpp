// A configuration in a JSON file, as `moatctl export` writes it.
#pragma once

#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

struct LoadedFile {
    Configuration configuration;   // what could be read
    std::vector<Problem> problems; // form: bad JSON, unknown tables and columns, wrong kinds, an Id used twice
    bool readable = true;          // false: no JSON, so that there is nothing more to say of it
};

// A JSON object with a list of rows per table; // and /* */ comments are allowed. Columns left out get their defaults.
// `name` is for messages.
LoadedFile parseConfiguration(std::string_view text, const std::string& name);

} // namespace moatctl
