#include "moatctl/check/findings.hpp"

#include <map>

namespace moatctl
{

namespace
{

const char* whatIsWrong(InterfaceState state)
{
    switch (state) {
    case InterfaceState::Port:
        break;
    case InterfaceState::Missing:
        return ": this machine has no such interface";
    case InterfaceState::Bridge:
        return ": a bridge, which is no port of itself; frames match its ports only";
    case InterfaceState::NoPort:
        return ": this interface is not a port of a bridge, so no frame matches";
    }
    return nullptr;
}

} // namespace

void findMissingInterfaces(const Expected& expected, const CheckOptions& options, Findings& findings)
{
    if (!options.interfaceState)
        return;
    std::map<std::string, InterfaceState> known; // many rows name few ports
    for (const Row* row : expected.used) {
        for (const schema::Column& column : row->table->columns) {
            if (column.kind != ValueKind::Interface)
                continue;
            std::string name = row->text(column.name);
            if (name.starts_with("! "))
                name.erase(0, 2);
            if (name.empty() || name.back() == '+' || name.size() > ebtables::maxInterfaceName)
                continue;
            const auto [place, isNew] = known.try_emplace(name, InterfaceState::Port);
            if (isNew)
                place->second = options.interfaceState(name);
            if (const char* wrong = whatIsWrong(place->second))
                findings.warning(*row, column.name, inQuotes(name) + wrong);
        }
    }
}

} // namespace moatctl
