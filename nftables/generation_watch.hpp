// Tells when a transaction has changed the kernel's tables, whoever made it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nftables
{

struct GenerationChange {
    std::uint32_t generation = 0;
    std::uint32_t process = 0;
    std::string program; // as the kernel knows it: at most 15 characters
    bool lost = false;   // changes were lost: only that there were some is known
};

// A socket that lets nothing but these messages through. Threading: one thread. No operation throws but std::bad_alloc.
class GenerationWatch
{
public:
    GenerationWatch() = default;
    ~GenerationWatch();
    GenerationWatch(const GenerationWatch&) = delete;
    GenerationWatch& operator=(const GenerationWatch&) = delete;

    // 0 or an error (errno). Without the right to listen the descriptor is there all the same, for listen(true) later.
    int open();

    bool isListening() const { return m_isListening; }

    // Readable when there is a change; -1 unless opened.
    int descriptor() const { return m_descriptor; }

    // The next change; nothing when there is none now. Never waits.
    std::optional<GenerationChange> next();

    // Does not listen for a while: for every rule that comes or goes, the kernel makes a message for whoever does. What
    // happens until it listens again is not told.
    void listen(bool on);

private:
    int m_descriptor = -1;
    bool m_isListening = false;
};

// One message's content; nothing when it is none of these. Any bytes are taken.
std::optional<GenerationChange> readGenerationChange(const void* bytes, std::size_t size);

} // namespace nftables
