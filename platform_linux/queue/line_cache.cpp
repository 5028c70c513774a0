#include "platform_linux/queue/line_cache.hpp"

#include <bit>
#include <cstring>
#include <random>

namespace zol::cfg
{

namespace
{

// SipHash-2-4: without the key nobody can make two lines of one value.
class SipHash
{
public:
    SipHash(std::uint64_t k0, std::uint64_t k1)
        : m_state{k0 ^ 0x736f6d6570736575U, k1 ^ 0x646f72616e646f6dU, k0 ^ 0x6c7967656e657261U,
                  k1 ^ 0x7465646279746573U}
    {
    }

    std::uint64_t of(std::string_view text)
    {
        std::uint64_t last = std::uint64_t{text.size()} << 56U;
        for (; text.size() >= 8; text.remove_prefix(8)) {
            std::uint64_t word;
            std::memcpy(&word, text.data(), sizeof word);
            take(word);
        }
        for (std::size_t i = 0; i < text.size(); ++i)
            last |= std::uint64_t{static_cast<unsigned char>(text[i])} << (8 * i);
        take(last);
        m_state[2] ^= 0xff;
        for (int i = 0; i < 4; ++i)
            turn();
        return m_state[0] ^ m_state[1] ^ m_state[2] ^ m_state[3];
    }

private:
    void take(std::uint64_t word)
    {
        m_state[3] ^= word;
        turn();
        turn();
        m_state[0] ^= word;
    }

    void turn()
    {
        auto& [a, b, c, d] = m_state;
        a += b;
        b = std::rotl(b, 13) ^ a;
        a = std::rotl(a, 32);
        c += d;
        d = std::rotl(d, 16) ^ c;
        a += d;
        d = std::rotl(d, 21) ^ a;
        c += b;
        b = std::rotl(b, 17) ^ c;
        c = std::rotl(c, 32);
    }

    std::array<std::uint64_t, 4> m_state;
};

} // namespace

LineCache::LineCache() : m_secrets{}
{
    std::random_device source;
    for (std::uint64_t& secret : m_secrets)
        secret = std::uint64_t{source()} << 32U | source();
}

LineCache::Key LineCache::keyOf(std::string_view line) const
{
    return {SipHash(m_secrets[0], m_secrets[1]).of(line), SipHash(m_secrets[2], m_secrets[3]).of(line)};
}

const PlayedCommand* LineCache::find(std::string_view line)
{
    const auto found = m_entries.find(keyOf(line));
    if (found == m_entries.end())
        return nullptr;
    found->second.used = m_round;
    return &found->second;
}

void LineCache::add(std::string_view line, const PlayedCommand& command)
{
    m_entries.insert_or_assign(keyOf(line), Entry{{command}, m_round});
}

void LineCache::tidy(std::size_t most)
{
    if (m_entries.size() > most)
        std::erase_if(m_entries, [&](const auto& entry) { return entry.second.used != m_round; });
    ++m_round;
}

void LineCache::forEach(const std::function<void(const PlayedCommand&)>& visit) const
{
    for (const auto& [key, entry] : m_entries)
        visit(entry);
}

} // namespace zol::cfg
