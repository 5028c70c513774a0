#include "moatctl/bridge/interface.hpp"

#include "moatctl/bridge/rtnetlink.hpp"

#include <cerrno>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string_view>

namespace moatctl
{

namespace
{

struct Link {
    std::string name;
    std::string kind;      // "bridge", "veth"; "" of a plain one
    std::string slaveKind; // of what it belongs to
};

void read(const nlattr& attribute, Link& link)
{
    if (mnl_attr_get_type(&attribute) == IFLA_IFNAME)
        link.name = mnl_attr_get_str(&attribute);
    if (mnl_attr_get_type(&attribute) != IFLA_LINKINFO)
        return;
    eachAttribute(attribute, [&link](const nlattr& inner) {
        if (mnl_attr_get_type(&inner) == IFLA_INFO_KIND)
            link.kind = mnl_attr_get_str(&inner);
        else if (mnl_attr_get_type(&inner) == IFLA_INFO_SLAVE_KIND)
            link.slaveKind = mnl_attr_get_str(&inner);
    });
}

// 0, or an error number.
int ask(const std::string& name, Link& link)
{
    KernelQuestion question(RTM_GETLINK, 0);
    question.header<ifinfomsg>();
    mnl_attr_put_strz(question.message(), IFLA_IFNAME, name.c_str());
    return question.ask([&link](const nlmsghdr& message) {
        eachAttribute(message, sizeof(ifinfomsg), [&link](const nlattr& attribute) { read(attribute, link); });
    });
}

constexpr std::string_view bridge = "bridge";

} // namespace

InterfaceState interfaceHere(const std::string& name)
{
    if (name.empty() || name.size() >= IFNAMSIZ)
        return InterfaceState::Missing;
    Link link;
    if (const int error = ask(name, link); error != 0)
        return error == ENODEV ? InterfaceState::Missing : InterfaceState::Port;
    // The kernel also finds it by its other names, which rules do not match.
    return link.name != name          ? InterfaceState::Missing
           : link.slaveKind == bridge ? InterfaceState::Port
           : link.kind == bridge      ? InterfaceState::Bridge
                                      : InterfaceState::NoPort;
}

std::vector<std::string> bridgePortsHere()
{
    std::vector<std::string> ports;
    KernelQuestion question(RTM_GETLINK, NLM_F_DUMP);
    question.header<ifinfomsg>();
    question.ask([&ports](const nlmsghdr& message) {
        Link link;
        eachAttribute(message, sizeof(ifinfomsg), [&link](const nlattr& attribute) { read(attribute, link); });
        if (link.slaveKind == bridge)
            ports.push_back(link.name);
    });
    return ports;
}

} // namespace moatctl
