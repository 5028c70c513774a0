// Lines that were parsed before: a refill of thousands of rules repeats nearly all of them.
#pragma once

#include "platform_linux/queue/play.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_map>

namespace zol::cfg
{

// For lines of one command, as nearly all are. Knows a line by a keyed hash of 128 bits, under a key of this process
// that nobody else knows. Threading: no shared state. No operation throws but std::bad_alloc.
class LineCache
{
public:
    LineCache();

    // The line's command, or nothing. Valid until the next call that is not const.
    const PlayedCommand* find(std::string_view line);
    void add(std::string_view line, const PlayedCommand& command);

    // When there are more than `most` lines, those go that were not asked for since the last call.
    void tidy(std::size_t most);

    void forEach(const std::function<void(const PlayedCommand&)>& visit) const;

private:
    struct Key {
        std::uint64_t first;
        std::uint64_t second;
        bool operator==(const Key&) const = default;
    };
    struct FirstHalf {
        std::size_t operator()(const Key& key) const noexcept { return static_cast<std::size_t>(key.first); }
    };
    // Derived, so that it has its place in the command's padding.
    struct Entry : PlayedCommand {
        std::uint32_t used;
    };
    static_assert(sizeof(void*) != 8 || sizeof(Entry) == 32);

    Key keyOf(std::string_view line) const;

    std::array<std::uint64_t, 4> m_secrets;
    std::uint32_t m_round = 0;
    std::unordered_map<Key, Entry, FirstHalf> m_entries;
};

} // namespace zol::cfg
