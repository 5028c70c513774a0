#include "moatctl/check/findings.hpp"

#include <filesystem>
#include <map>
#include <system_error>

namespace moatctl
{

void findMissingInterfaces(const Expected& expected, const CheckOptions& options, Findings& findings)
{
    if (!options.interfaceExists)
        return;
    std::map<std::string, bool> known; // many rows name few ports
    for (const Row* row : expected.used) {
        for (const schema::Column& column : row->table->columns) {
            if (column.kind != ValueKind::Interface)
                continue;
            std::string name = row->text(column.name);
            if (name.starts_with("! "))
                name.erase(0, 2);
            if (name.empty() || name.back() == '+' || name.size() > ebtables::maxInterfaceName)
                continue;
            const auto [place, isNew] = known.try_emplace(name);
            if (isNew)
                place->second = options.interfaceExists(name);
            if (!place->second)
                findings.warning(*row, column.name, inQuotes(name) + ": this machine has no such interface");
        }
    }
}

bool isInterfaceHere(const std::string& name)
{
    std::error_code ignored;
    return !name.empty() && name.find('/') == std::string::npos && name != "." && name != ".." &&
           std::filesystem::exists("/sys/class/net/" + name, ignored);
}

} // namespace moatctl
