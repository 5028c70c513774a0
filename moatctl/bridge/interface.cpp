#include "moatctl/bridge/interface.hpp"

#include <array>
#include <cerrno>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <net/if.h>
#include <string_view>

namespace moatctl
{

namespace
{

using Socket = std::unique_ptr<mnl_socket, decltype(&mnl_socket_close)>;

struct Link {
    std::string name;
    std::string kind;      // "bridge", "veth"; "" of a plain one
    std::string slaveKind; // of what it belongs to
};

int readKind(const nlattr* attribute, void* data)
{
    auto& link = *static_cast<Link*>(data);
    const auto type = mnl_attr_get_type(attribute);
    if (type == IFLA_INFO_KIND)
        link.kind = mnl_attr_get_str(attribute);
    else if (type == IFLA_INFO_SLAVE_KIND)
        link.slaveKind = mnl_attr_get_str(attribute);
    return MNL_CB_OK;
}

int readAttribute(const nlattr* attribute, void* data)
{
    const auto type = mnl_attr_get_type(attribute);
    if (type == IFLA_IFNAME)
        static_cast<Link*>(data)->name = mnl_attr_get_str(attribute);
    return type == IFLA_LINKINFO ? mnl_attr_parse_nested(attribute, readKind, data) : MNL_CB_OK;
}

int readLink(const nlmsghdr* message, void* data)
{
    return mnl_attr_parse(message, sizeof(ifinfomsg), readAttribute, data);
}

// 0, or an error number.
int ask(const std::string& name, Link& link)
{
    const Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), mnl_socket_close);
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0)
        return errno;
    std::array<char, 32768> buffer{};
    nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETLINK;
    request->nlmsg_flags = NLM_F_REQUEST;
    mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg));
    mnl_attr_put_strz(request, IFLA_IFNAME, name.c_str());
    if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0)
        return errno;
    const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    if (size < 0 || mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), 0, mnl_socket_get_portid(socket.get()),
                               readLink, &link) < 0)
        return errno;
    return 0;
}

} // namespace

InterfaceState interfaceHere(const std::string& name)
{
    constexpr std::string_view bridge = "bridge";
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

} // namespace moatctl
