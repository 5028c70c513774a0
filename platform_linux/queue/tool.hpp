// The `ebtables` tool: where its programs are, and which variant it is.
#pragma once

#include "subprocess/run.hpp"

#include <string>
#include <vector>

namespace ebtables
{

using subprocess::RunLimits;
using subprocess::RunResult;

// Where the programs are. They are started by these paths and no other.
struct ToolPaths {
    std::string ebtables = "/usr/sbin/ebtables";
    std::string save = "/usr/sbin/ebtables-save";
};

// subprocess::run; the reason for a program that is missing names its package.
RunResult runTool(const std::string& path, const std::vector<std::string>& arguments, const std::string& input,
                  const RunLimits& limits = {});

enum class Variant {
    NfTables, // whole transactions
    Legacy,   // one line at a time
    Unknown,  // could not be found out: reason says why
};

struct ToolVersion {
    Variant variant = Variant::Unknown;
    std::string text;   // "ebtables 1.8.9 (nf_tables)"
    std::string reason; // when Unknown
};

// Asks the tool which one it is.
ToolVersion detect(const ToolPaths& paths, const RunLimits& limits = {});

} // namespace ebtables
