// The verbs: one function a file.
#pragma once

#include "moatctl/command_line/verb.hpp"

namespace moatctl
{

void addCheck(CLI::App& root, Program& program);
void addExplain(CLI::App& root, Program& program);
void addStatus(CLI::App& root, Program& program);
void addShow(CLI::App& root, Program& program);
void addRule(CLI::App& root, Program& program);
void addPolicy(CLI::App& root, Program& program);
void addForwardPolicy(CLI::App& root, Program& program);
void addFilter(CLI::App& root, Program& program);
void addFilterRule(CLI::App& root, Program& program);
void addGlobal(CLI::App& root, Program& program);
void addBatch(CLI::App& root, Program& program);
void addExport(CLI::App& root, Program& program);
void addImport(CLI::App& root, Program& program);
void addMonitor(CLI::App& root, Program& program);

} // namespace moatctl
