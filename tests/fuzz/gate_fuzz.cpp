// Any bytes as lines queued one after the other: what the gate lets through changes nothing but what the rows of a
// configuration may change.
#include "tests/fuzz/table_guard.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    GuardedGate gate;
    for (int lines = 0; !rest.empty() && lines < 50; ++lines) {
        const std::size_t end = rest.find('\n');
        gate.take(std::string(rest.substr(0, end)));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return 0;
}
