// Changes the server's rows, for all verbs that do.
#pragma once

#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/edit.hpp"
#include "platform/value_list.hpp"

#include <string>

namespace moatctl
{

// The options of every verb that changes rows.
void addChangeOptions(const Command& command, Program& program);

// The edit, and then a look at what it brings about: with errors it throws Failure(BadInput), unless they are to be
// stored all the same; warnings become notes. What was wrong before and is not the edit's doing is not told.
std::function<void(Editor&)> checked(Program& program, std::function<void(Editor&)> edit);

// Carries the edit out, writes what it reports and waits until it is in force, if that is wanted. Throws what applyEdit
// and awaitInForce throw.
ExitStatus carryOut(Program& program, const std::function<void(Editor&)>& edit);

// Gives a column of the row that counts the changes another value: a change like any other, counted and waited for.
// told: the line that says so. Throws Failure(Server) where the server has no place for it, and what awaitInForce
// throws.
ExitStatus carryOutSetting(Program& program, const std::string& column, const tessera::Value& value,
                           const std::string& told);

} // namespace moatctl
