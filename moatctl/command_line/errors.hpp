// What is wrong with a command line, in one line: where, which word, what was expected.
#pragma once

#include <CLI/CLI.hpp>

#include <initializer_list>
#include <string>

namespace moatctl
{

// The error that the last parsing of `root` threw.
std::string describeError(const CLI::ParseError& error, const CLI::App& root);

// Accepts these words only.
CLI::Validator oneOf(std::initializer_list<const char*> words);

} // namespace moatctl
