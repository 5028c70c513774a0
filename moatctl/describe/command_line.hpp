// The command line of moatctl as text for other programs, made from the same definitions that parse it.
#pragma once

#include <iosfwd>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace moatctl
{

// The template with each line `@VERBS@` and `@OPTIONS@` replaced by the verbs and by the options of the whole program,
// in mdoc.
void writeManual(std::ostream& out, const CLI::App& root, std::istream& pattern);

// A completion script for bash.
void writeCompletion(std::ostream& out, const CLI::App& root);

// The sub-commands that are shown, in their order, and the options without --help.
std::vector<const CLI::App*> subcommandsOf(const CLI::App& app);
std::vector<const CLI::Option*> optionsOf(const CLI::App& app);

} // namespace moatctl
