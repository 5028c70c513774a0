// Where a configuration comes from: the server, or a JSON file.
#pragma once

#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/configuration.hpp"
#include "moatctl/tables/problem.hpp"

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace moatctl
{

// One consistent state of the server. Throws the errors of ovsdb::Client.
Configuration loadFromServer(ovsdb::Client& client);
Configuration toConfiguration(const ovsdb::TableCache& cache);

struct LoadedFile {
    Configuration configuration;   // what could be read
    std::vector<Problem> problems; // form: bad JSON, unknown tables and columns, wrong kinds, an Id used twice
    bool readable = true;          // false: no JSON, so that there is nothing more to say of it
};

// A JSON object with a list of rows per table, as `moatctl export` writes it; // and /* */ comments are allowed.
// Columns left out get their defaults. `name` is for messages.
LoadedFile parseConfiguration(std::string_view text, const std::string& name);

// The text of a file, or of standard input for "-". Throws Failure(BadInput) when it cannot be read.
std::string readText(Program& program, const std::string& path);
// How the file is called in messages.
std::string nameOf(const std::string& path);

} // namespace moatctl
