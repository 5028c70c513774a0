#include "tests/moatctl/kernel_lab.hpp"

#include "subprocess/run.hpp"

#include <gtest/gtest.h>

#include <sched.h>
#include <sstream>

namespace test
{

namespace
{

constexpr const char* nft = "/usr/sbin/nft";
constexpr const char* restoreProgram = "/usr/sbin/ebtables-restore";

bool succeeded(const subprocess::RunResult& result)
{
    return result.end == subprocess::RunResult::End::Exited && result.exitCode == 0;
}

} // namespace

bool enterNamespace()
{
    return unshare(CLONE_NEWNET) == 0 &&
           succeeded(subprocess::run(restoreProgram, {"--noflush"}, "*filter\n-P INPUT ACCEPT\nCOMMIT\n"));
}

std::string runOrFail(const std::string& path, const std::vector<std::string>& arguments, const std::string& input)
{
    const subprocess::RunResult result = subprocess::run(path, arguments, input);
    std::string words;
    for (const std::string& argument : arguments)
        words += ' ' + argument;
    EXPECT_TRUE(succeeded(result)) << path << words << ": " << result.reason << result.errors;
    return result.output;
}

std::string restore(const moatctl::Expected& expected)
{
    std::string batch = "*filter\n";
    for (const moatctl::ExpectedLine& line : expected.lines) {
        std::istringstream commands(line.text);
        for (std::string command; std::getline(commands, command, ';');) {
            const std::string program = "ebtables ";
            if (const std::size_t at = command.find(program); at != std::string::npos)
                batch += command.substr(at + program.size()) + '\n';
        }
    }
    runOrFail(nft, {"-f", "-"}, "add table bridge filter\ndelete table bridge filter\n");
    const subprocess::RunResult result = subprocess::run(restoreProgram, {"--noflush"}, batch + "COMMIT\n");
    return succeeded(result) ? "" : "status " + std::to_string(result.exitCode) + ": " + result.errors + "\n" + batch;
}

} // namespace test
