// Attributes of netlink messages, within this folder. libmnl's loops are macros for C; these are the same for C++.
#pragma once

#include <arpa/inet.h> // before the kernel's headers, which then leave out what it has

#include <endian.h>
#include <libmnl/libmnl.h>

#include "nftables/socket.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace nftables
{

// Takes the message at their front off the bytes; nothing when no whole one is there. libmnl's own check takes lengths
// for signed numbers.
inline const nlmsghdr* takeMessage(Bytes& bytes)
{
    if (bytes.size() < sizeof(nlmsghdr))
        return nullptr;
    const auto* const message = reinterpret_cast<const nlmsghdr*>(bytes.data());
    if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > bytes.size())
        return nullptr;
    bytes = bytes.subspan(std::min<std::size_t>(bytes.size(), MNL_ALIGN(std::size_t{message->nlmsg_len})));
    return message;
}

inline void forEachAttribute(const nlattr* attribute, const void* end, auto&& visit)
{
    while (mnl_attr_ok(attribute,
                       static_cast<int>(static_cast<const char*>(end) - reinterpret_cast<const char*>(attribute)))) {
        visit(attribute);
        attribute = mnl_attr_next(attribute);
    }
}

// Those behind a header of so many bytes.
inline void forEachAttribute(const nlmsghdr* message, std::size_t header, auto&& visit)
{
    forEachAttribute(static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(message, header)),
                     mnl_nlmsg_get_payload_tail(message), visit);
}

inline void forEachNested(const nlattr* nest, auto&& visit)
{
    const auto* const begin = static_cast<const char*>(mnl_attr_get_payload(nest));
    forEachAttribute(reinterpret_cast<const nlattr*>(begin), begin + mnl_attr_get_payload_len(nest), visit);
}

// Up to the first zero byte; a view of the message.
inline std::string_view textOf(const nlattr* attribute)
{
    const auto* const begin = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {begin, strnlen(begin, mnl_attr_get_payload_len(attribute))};
}

inline std::optional<std::uint32_t> numberOf(const nlattr* attribute)
{
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != sizeof(std::uint32_t))
        return std::nullopt;
    return ntohl(mnl_attr_get_u32(attribute));
}

inline std::optional<std::uint64_t> longNumberOf(const nlattr* attribute)
{
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != sizeof(std::uint64_t))
        return std::nullopt;
    return be64toh(mnl_attr_get_u64(attribute));
}

inline void put32(nlmsghdr* message, int type, std::uint32_t value)
{
    mnl_attr_put_u32(message, static_cast<std::uint16_t>(type), htonl(value));
}

inline void put64(nlmsghdr* message, int type, std::uint64_t value)
{
    mnl_attr_put_u64(message, static_cast<std::uint16_t>(type), htobe64(value));
}

inline constexpr std::size_t messageHeader = 4; // struct nfgenmsg

// The attributes of one level by their types; views of the message.
template <std::size_t N>
class Attributes
{
public:
    explicit Attributes(const nlattr* parent)
    {
        forEachNested(parent, [this](const nlattr* attribute) { note(attribute); });
    }
    explicit Attributes(const nlmsghdr* message)
    {
        forEachAttribute(message, messageHeader, [this](const nlattr* attribute) { note(attribute); });
    }

    const nlattr* find(int type) const { return m_found[static_cast<std::size_t>(type)]; }

    std::optional<std::uint32_t> number(int type) const { return numberOf(find(type)); }
    std::optional<std::uint64_t> longNumber(int type) const { return longNumberOf(find(type)); }

    // Whether the attribute is there with another value, or of another size.
    bool differs(int type, std::uint32_t value) const { return number(type) != value; }

private:
    void note(const nlattr* attribute)
    {
        if (mnl_attr_get_type(attribute) < N)
            m_found[mnl_attr_get_type(attribute)] = attribute;
    }

    std::array<const nlattr*, N> m_found{};
};

// What is put while it lives is inside.
class Nest
{
public:
    Nest(nlmsghdr* message, int type)
        : m_message(message), m_attribute(mnl_attr_nest_start(message, static_cast<std::uint16_t>(type)))
    {
    }
    ~Nest() { mnl_attr_nest_end(m_message, m_attribute); }
    Nest(const Nest&) = delete;
    Nest& operator=(const Nest&) = delete;

private:
    nlmsghdr* m_message;
    nlattr* m_attribute;
};

inline void putText(nlmsghdr* message, int type, const char* text)
{
    mnl_attr_put_strz(message, static_cast<std::uint16_t>(type), text);
}

} // namespace nftables
