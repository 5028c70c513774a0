#include "platform_linux/queue/tool.hpp"

#include "text/one_line.hpp"

#include <cerrno>
#include <string_view>

namespace ebtables
{

RunResult runTool(const std::string& path, const std::vector<std::string>& arguments, const std::string& input,
                  const RunLimits& limits)
{
    RunResult result = subprocess::run(path, arguments, input, limits);
    if (result.error == ENOENT)
        result.reason += "; install the package ebtables";
    return result;
}

ToolVersion detect(const ToolPaths& paths, const RunLimits& limits)
{
    ToolVersion version;
    const RunResult result = runTool(paths.ebtables, {"--version"}, {}, limits);
    version.text = text::oneLine(std::string_view(result.output).substr(0, result.output.find('\n')));
    if (result.end != RunResult::End::Exited)
        version.reason = result.reason;
    else if (version.text.find("(nf_tables)") != std::string::npos)
        version.variant = Variant::NfTables;
    else if (result.exitCode == 0 && version.text.find("ebtables") != std::string::npos)
        version.variant = Variant::Legacy;
    else
        version.reason = paths.ebtables + " --version ended with status " + std::to_string(result.exitCode) +
                         " and names no variant: \"" + text::oneLine(result.output + result.errors) + '"';
    return version;
}

} // namespace ebtables
