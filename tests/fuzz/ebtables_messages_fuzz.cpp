// Any bytes as the tool's standard error, the first one as its exit status; and as the record of a killed process.
#include "platform_linux/queue/footprint.hpp"
#include "platform_linux/queue/messages.hpp"

#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    const ebtables::Messages messages = ebtables::parseMessages(data[0] % 8, input);
    for (const ebtables::Messages::Line& line : messages.lines) {
        if (line.reason.empty() || line.reason.find('\n') != std::string::npos)
            std::abort();
    }
    std::string reason;
    const std::optional<ebtables::Footprint> footprint = ebtables::Footprint::fromText(input, "1:2", reason);
    if (!footprint && reason.empty())
        std::abort();
    if (footprint && ebtables::Footprint::fromText(footprint->toText("1:2"), "1:2", reason) != footprint)
        std::abort();
    return 0;
}
