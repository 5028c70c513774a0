// A network namespace for this process, with the real tool and a real bridge in it.
#pragma once

#include "moatctl/bridge/expected.hpp"

#include <string>
#include <vector>

namespace test
{

// Moves this process into a network namespace of its own. False when that is not allowed or the kernel has no bridge
// tables; the test is then to be skipped.
bool enterNamespace();

// Runs a program and fails the test when it fails. Returns its output.
std::string runOrFail(const std::string& path, const std::vector<std::string>& arguments,
                      const std::string& input = "");

// A fresh table with the commands of the lines. Returns the tool's complaint, "" for none.
std::string restore(const moatctl::Expected& expected);

} // namespace test
