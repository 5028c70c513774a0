#include "moatctl/bridge/kernel.hpp"

#include "moatctl/bridge/compiled_kernel.hpp"
#include "nftables/connection.hpp"
#include "subprocess/run.hpp"
#include "text/one_line.hpp"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <utility>

namespace moatctl
{

namespace
{

constexpr const char* saveProgram = "/usr/sbin/ebtables-save";
// The daemon touches its lock whenever a commit is done.
constexpr const char* daemonsLock = "/run/moatkeeper/lock";

} // namespace

std::optional<KernelState> readKernel(std::string& reason)
{
    const subprocess::RunResult result = subprocess::run(saveProgram, {"-c"}, "");
    const bool exited = result.end == subprocess::RunResult::End::Exited;
    if (exited && result.exitCode == 0) {
        std::optional<nftables::HeldProgram> compiled = readCompiled(reason);
        if (!compiled)
            return std::nullopt;
        return KernelState{ebtables::parseSaved(result.output), *std::move(compiled)};
    }
    reason = exited ? std::string(saveProgram) + ": " + text::oneLine(result.errors) : result.reason;
    if (result.error == ENOENT)
        reason += "; install the package ebtables";
    return std::nullopt;
}

ebtables::Table rulesOf(KernelState state, const ebtables::Table& wanted)
{
    return state.isCompiled() ? asRules(state.plain, state.compiled, wanted) : std::move(state.plain);
}

std::optional<CommitTime> lastCommit(std::string& reason)
{
    struct stat status {
    };
    if (lstat(daemonsLock, &status) != 0) {
        reason = std::string("cannot look at ") + daemonsLock + ": " + std::strerror(errno);
        return std::nullopt;
    }
    return CommitTime(std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec));
}

bool hasCompiled()
{
    std::vector<nftables::ChainView> chains;
    std::uint64_t table = 0;
    nftables::Connection().readChains(chains, table, nftables::compiledTable);
    return table != 0;
}

std::optional<std::uint32_t> transactions()
{
    return nftables::Connection().generation().generation;
}

} // namespace moatctl
