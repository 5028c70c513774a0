#include "moatctl/command_line/settings.hpp"

#include "moatctl/command_line/errors.hpp"
#include "moatctl/command_line/numbers.hpp"
#include "moatctl/command_line/verb.hpp"
#include "moatctl/tables/problem.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace moatctl
{

namespace
{

constexpr int longestTimeout = 3600;
constexpr const char* machinesFile = "/etc/moatkeeper/moatctl.conf";
constexpr const char* usersFile = "/moatkeeper/moatctl.conf"; // in the folder for settings

[[noreturn]] void refuse(const std::string& place, const std::string& what)
{
    throw Failure(ExitStatus::BadInput, place + ": " + what);
}

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// "" when there is none.
std::string usersPath()
{
    const std::string folder = environment("XDG_CONFIG_HOME");
    if (folder.starts_with('/'))
        return folder + usersFile;
    const std::string home = environment("HOME");
    return home.starts_with('/') ? home + "/.config" + usersFile : "";
}

// Whoever can change the file decides whom the server is taken for.
void checkOwner(const std::string& path, const struct stat& status)
{
    if (status.st_uid != 0 && status.st_uid != geteuid())
        refuse(path,
               "belongs to user " + std::to_string(status.st_uid) + ", expected 0 or " + std::to_string(geteuid()));
    if ((status.st_mode & S_IWOTH) != 0)
        refuse(path, "everybody may write to it, expected a file that only its owner can change");
}

// A file that need not be there may be missing, or in another user's folder, as after a change of user by setpriv.
void readFile(const std::string& path, bool required, GivenSettings& settings)
{
    struct stat status {
    };
    if (path.empty() || stat(path.c_str(), &status) != 0) {
        if (required || (!path.empty() && errno != ENOENT && errno != ENOTDIR && errno != EACCES))
            refuse(path, std::generic_category().message(errno) + ", expected a file of settings");
        return;
    }
    if (!S_ISREG(status.st_mode))
        refuse(path, "is no file, expected a file of settings");
    checkOwner(path, status);
    std::ifstream file(path, std::ios::binary);
    if (!file)
        refuse(path, "cannot be read");
    std::vector<CLI::ConfigItem> items;
    try {
        CLI::ConfigINI reader;
        reader.arrayDelimiter('\0'); // a comma stands between endpoints
        items = reader.from_config(file);
    } catch (const CLI::Error& error) {
        refuse(path, std::string(error.what()) + ", expected lines such as server = ssl:HOST:PORT");
    }
    std::vector<std::string> keys;
    for (const Setting& setting : allSettings())
        keys.emplace_back(setting.key);
    std::set<std::string> seen;
    for (const CLI::ConfigItem& item : items) {
        if (!item.parents.empty() || std::ranges::find(keys, item.name) == keys.end())
            refuse(path, "unknown setting " +
                             inQuotes(item.name == "++" ? '[' + item.parents.back() + ']' : item.fullname()) +
                             ", expected " + alternatives(keys));
        if (!seen.insert(item.name).second)
            refuse(path, item.name + " is given twice, expected once");
        if (item.inputs.size() != 1 || item.inputs.front().empty())
            refuse(path, item.name + " has no value, expected " +
                             std::ranges::find(allSettings(), item.name, &Setting::key)->type);
        settings.emplace(item.name, GivenSetting{item.inputs.front(), path + ", " + item.name});
    }
}

void readEnvironment(GivenSettings& settings)
{
    for (const Setting& setting : allSettings()) {
        if (const std::string value = environment(setting.variable); !value.empty())
            settings.emplace(setting.key, GivenSetting{value, setting.variable});
    }
}

} // namespace

const std::vector<Setting>& allSettings()
{
    static const std::vector<Setting> settings{
        {"server", "MOATCTL_SERVER", "ENDPOINT[,ENDPOINT...]",
         "The configuration server, or the servers of a cluster: unix:PATH or only PATH, tcp:HOST:PORT, ssl:HOST:PORT"},
        {"private-key", "MOATCTL_PRIVATE_KEY", "FILE", "For ssl: the private key of the certificate, in PEM form"},
        {"certificate", "MOATCTL_CERTIFICATE", "FILE", "For ssl: the certificate that says who we are, in PEM form"},
        {"ca-cert", "MOATCTL_CA_CERT", "FILE", "For ssl: the certificate of the CA that the server's must be of"},
        {"database", "MOATCTL_DATABASE", "NAME",
         "The database, where the server has several: moatkeeper, or moatkeeper_GROUP of a group of devices"},
        {"timeout", "MOATCTL_TIMEOUT", "SECONDS",
         "Longest wait for an answer from the server, and for a change to be in force"},
    };
    return settings;
}

void applySettings(Program& program)
{
    GivenSettings settings = program.given;
    readEnvironment(settings);
    if (!program.settingsFile.empty()) {
        readFile(program.settingsFile, true, settings);
    } else {
        readFile(usersPath(), false, settings);
        readFile(machinesFile, false, settings);
    }
    for (const auto& [key, given] : settings) {
        if (key == "server") {
            try {
                program.endpoints = endpoint::parseEndpoints(given.value);
            } catch (const endpoint::Mistake& mistake) {
                throw Failure(ExitStatus::BadInput, given.place + ' ' + mistake.what());
            }
        } else if (key == "timeout") {
            program.server.timeout = secondsOf(given.place, given.value, longestTimeout);
        } else if (key == "database") {
            program.server.database = given.value;
        } else if (key == "private-key") {
            program.access.privateKey = given.value;
        } else if (key == "certificate") {
            program.access.certificate = given.value;
        } else {
            program.access.caCertificate = given.value;
        }
    }
}

} // namespace moatctl
