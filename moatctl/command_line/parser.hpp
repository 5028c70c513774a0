// Parses the command line that the verbs have described.
#pragma once

#include "moatctl/command_line/verb.hpp"

#include <memory>
#include <string>
#include <vector>

namespace moatctl
{

class Parser
{
public:
    // The options and verbs of the whole program.
    explicit Parser(Program& program);
    // The verbs that change rows, as they stand on the lines of a batch.
    struct OnlyChanges {
    };
    Parser(Program& program, OnlyChanges);
    ~Parser();
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    // Calls back the verb that was given. Returns the text that was asked for instead (help, version), else "". Throws
    // Failure(BadInput): what is wrong and what was expected.
    std::string parse(int argc, const char* const* argv);
    std::string parse(std::vector<std::string> words);

    const CLI::App& description() const { return *m_root; }

private:
    std::unique_ptr<CLI::App> m_root;
};

} // namespace moatctl
