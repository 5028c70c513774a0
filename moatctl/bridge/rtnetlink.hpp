// A question to the kernel about its network devices, addresses and ways.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <libmnl/libmnl.h>

namespace moatctl
{

// A message under construction: the type, the flags beside NLM_F_REQUEST, and after it the header that the type wants.
class KernelQuestion
{
public:
    KernelQuestion(std::uint16_t type, std::uint16_t flags);

    template <typename Header>
    Header& header()
    {
        return *static_cast<Header*>(mnl_nlmsg_put_extra_header(m_message, sizeof(Header)));
    }
    nlmsghdr* message() { return m_message; }

    // Calls `take` with each message of the answer. Returns 0, or an error number.
    int ask(const std::function<void(const nlmsghdr& message)>& take);

private:
    alignas(nlmsghdr) std::array<char, 512> m_buffer{};
    nlmsghdr* m_message;
};

// Calls `take` with each attribute after a header of this size, or inside the attribute.
void eachAttribute(const nlmsghdr& message, std::size_t header, const std::function<void(const nlattr&)>& take);
void eachAttribute(const nlattr& nest, const std::function<void(const nlattr&)>& take);

} // namespace moatctl
