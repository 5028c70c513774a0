// Golden data files, parsed: see README.md beside this file for the notation.
#pragma once

#include "platform_fake/memory_tables.hpp"

#include <string>
#include <vector>

namespace golden
{

enum class Action {
    rows,      // the table's rows are replaced
    noTable,   // the table is unknown from now on
    load,      // loadFromConfig
    commit,    // commitToSystem
    ready,     // everything is read and committed; what is recorded thereby is not compared
    stop,      // the handler is destroyed
    debug,     // the process-wide debug flag
    debugCall, // the handler's setDebugMode
    trace,     // trace lines are compared from now on
};

struct Step {
    Action action = Action::ready;
    int lineNumber = 0;
    std::string table;                 // rows, noTable, load
    std::vector<fake::Row> rows;       // rows
    bool flag = false;                 // load: the result; debug, debugCall: on or off
    std::vector<std::string> expected; // what the step records, in order, as render() writes it
};

struct Case {
    std::string name;
    int lineNumber = 0;
    std::vector<Step> steps;
};

// Reads a file. Throws std::runtime_error, whose text names file and line, when it is not in the notation.
std::vector<Case> readCases(const std::string& path);

// How the text of a line is written in a file: as it is where a reader can see it all, else in quotes.
std::string render(const std::string& text);

} // namespace golden
