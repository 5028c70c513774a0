#include "moatctl/command_line/occasion.hpp"

#include "moatctl/command_line/settings.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <pwd.h>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace moatctl
{

namespace
{

constexpr std::size_t longestName = 40;
constexpr std::size_t longestAddress = 60;
constexpr std::size_t longestHost = 60;
constexpr std::size_t longestVerb = 900;
constexpr std::string_view variable = "SSH_CONNECTION=";

std::string quoted(std::string_view word)
{
    const bool plain = !word.empty() && std::ranges::all_of(word, [](unsigned char c) {
        return std::isalnum(c) != 0 ||
               std::string_view("-_./:,=+@%").find(static_cast<char>(c)) != std::string_view::npos;
    });
    if (plain)
        return std::string(word);
    std::string text = "'";
    for (const char c : word)
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + '\'';
}

// The server, whose history it goes into, and how it is reached.
bool saysHowToReach(std::string_view option)
{
    return option.starts_with("--") &&
           std::ranges::find(allSettings(), option.substr(2), &Setting::key) != allSettings().end();
}

std::string userName()
{
    const passwd* entry = getpwuid(getuid());
    std::string name = entry != nullptr ? text::oneLine(entry->pw_name, longestName) : std::to_string(getuid());
    const char* caller = std::getenv("SUDO_USER");
    return caller != nullptr && getuid() == 0 ? name + " (" + text::oneLine(caller, longestName) + ')' : name;
}

std::string hostName()
{
    std::array<char, HOST_NAME_MAX + 1> name{};
    gethostname(name.data(), name.size() - 1);
    return text::oneLine(name.data(), longestHost);
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// From "1234 (name of any kind) S 1200 ...".
pid_t parentOf(pid_t process)
{
    const std::string status = contentOf("/proc/" + std::to_string(process) + "/stat");
    const std::size_t end = status.rfind(')');
    if (end == std::string::npos)
        return 0;
    std::istringstream rest(status.substr(end + 1));
    char state = 0;
    pid_t parent = 0;
    rest >> state >> parent;
    return parent;
}

} // namespace

std::string commandLine(int argc, const char* const* argv)
{
    std::string line;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const std::string_view name = word.substr(0, word.find('='));
        if (saysHowToReach(name))
            i += name == word ? 1 : 0; // its value is the next word
        else
            line += (line.empty() ? "" : " ") + quoted(word);
    }
    return text::oneLine(line, longestVerb);
}

std::string sshConnection()
{
    constexpr int generations = 16;
    if (const char* own = std::getenv("SSH_CONNECTION"))
        return own;
    pid_t process = getppid();
    for (int i = 0; i < generations && process > 1; ++i, process = parentOf(process)) {
        const std::string environment = '\0' + contentOf("/proc/" + std::to_string(process) + "/environ");
        const std::size_t place = environment.find('\0' + std::string(variable));
        if (place != std::string::npos)
            return environment.c_str() + place + 1 + variable.size();
    }
    return {};
}

void identify(Occasion& occasion)
{
    const std::string connection = sshConnection();
    occasion.user = userName();
    occasion.address = text::oneLine(connection.substr(0, connection.find(' ')), longestAddress);
    occasion.host = hostName();
}

} // namespace moatctl
