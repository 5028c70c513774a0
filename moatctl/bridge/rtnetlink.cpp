#include "moatctl/bridge/rtnetlink.hpp"

#include <cerrno>
#include <linux/netlink.h>
#include <memory>
#include <vector>

namespace moatctl
{

namespace
{

using Socket = std::unique_ptr<mnl_socket, decltype(&mnl_socket_close)>;
using Take = std::function<void(const nlmsghdr&)>;
using TakeAttribute = std::function<void(const nlattr&)>;

int takeMessage(const nlmsghdr* message, void* data)
{
    (*static_cast<const Take*>(data))(*message);
    return MNL_CB_OK;
}

int takeAttribute(const nlattr* attribute, void* data)
{
    (*static_cast<const TakeAttribute*>(data))(*attribute);
    return MNL_CB_OK;
}

} // namespace

KernelQuestion::KernelQuestion(std::uint16_t type, std::uint16_t flags)
    : m_message(mnl_nlmsg_put_header(m_buffer.data()))
{
    m_message->nlmsg_type = type;
    m_message->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
}

int KernelQuestion::ask(const Take& take)
{
    constexpr std::size_t answerSize = 32768;
    const Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), mnl_socket_close);
    if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        mnl_socket_sendto(socket.get(), m_message, m_message->nlmsg_len) < 0)
        return errno;
    std::vector<char> answer(answerSize);
    const bool severalMessages = (m_message->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    for (int more = MNL_CB_OK; more == MNL_CB_OK;) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), answer.data(), answer.size());
        if (size < 0)
            return errno;
        more = mnl_cb_run(answer.data(), static_cast<std::size_t>(size), 0, mnl_socket_get_portid(socket.get()),
                          takeMessage, const_cast<Take*>(&take));
        if (more < 0)
            return errno;
        if (!severalMessages)
            break;
    }
    return 0;
}

void eachAttribute(const nlmsghdr& message, std::size_t header, const TakeAttribute& take)
{
    mnl_attr_parse(&message, static_cast<unsigned>(header), takeAttribute, const_cast<TakeAttribute*>(&take));
}

void eachAttribute(const nlattr& nest, const TakeAttribute& take)
{
    mnl_attr_parse_nested(&nest, takeAttribute, const_cast<TakeAttribute*>(&take));
}

} // namespace moatctl
