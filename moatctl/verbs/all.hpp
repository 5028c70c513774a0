// The verbs: one function a file.
#pragma once

#include "moatctl/command_line/verb.hpp"

namespace moatctl
{

// In the order of the help.
std::span<const Verb> allVerbs();

void addCheck(const Command& root, Program& program);
void addExplain(const Command& root, Program& program);
void addMatrix(const Command& root, Program& program);
void addReport(const Command& root, Program& program);
void addStatus(const Command& root, Program& program);
void addMetrics(const Command& root, Program& program);
void addTop(const Command& root, Program& program);
void addTrace(const Command& root, Program& program);
void addShow(const Command& root, Program& program);
void addRule(const Command& root, Program& program);
void addPolicy(const Command& root, Program& program);
void addForwardPolicy(const Command& root, Program& program);
void addFilter(const Command& root, Program& program);
void addFilterRule(const Command& root, Program& program);
void addGlobal(const Command& root, Program& program);
void addAcknowledge(const Command& root, Program& program);
void addPort(const Command& root, Program& program);
void addBatch(const Command& root, Program& program);
void addExport(const Command& root, Program& program);
void addImport(const Command& root, Program& program);
void addMonitor(const Command& root, Program& program);
void addHistory(const Command& root, Program& program);
void addUndo(const Command& root, Program& program);
void addDevices(const Command& root, Program& program);
void addRollout(const Command& root, Program& program);
void addEngine(const Command& root, Program& program);
void addExpire(const Command& root, Program& program);
void addConfirm(const Command& root, Program& program);
void addCancel(const Command& root, Program& program);

} // namespace moatctl
