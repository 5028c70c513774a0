// What is wrong with a command line, in one line: where, which word, what was expected.
#pragma once

#include <string>
#include <vector>

namespace CLI
{
class App;
class ParseError;
} // namespace CLI

namespace moatctl
{

// The error that the last parsing of `root` threw.
std::string describeError(const CLI::ParseError& error, const CLI::App& root);

// "a, b or c"
std::string alternatives(const std::vector<std::string>& words);

} // namespace moatctl
