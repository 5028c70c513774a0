#include "moatctl/command_line/quorum.hpp"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace moatctl
{

namespace
{

constexpr std::size_t most = 1'000'000;

} // namespace

std::size_t Quorum::of(std::size_t devices) const
{
    return number != 0 ? number : std::max<std::size_t>((devices * percent + 99) / 100, 1);
}

std::optional<Quorum> parseQuorum(const std::string& text)
{
    if (text == "all")
        return Quorum();
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string rest(end, text.data() + text.size());
    if (error != std::errc() || number == 0)
        return std::nullopt;
    if (rest == "%" && number <= 100)
        return Quorum{.number = 0, .percent = number};
    if (rest.empty() && number <= most)
        return Quorum{.number = number};
    return std::nullopt;
}

std::string toText(const Quorum& quorum)
{
    if (quorum == Quorum())
        return "all";
    return quorum.number != 0 ? std::to_string(quorum.number) : std::to_string(quorum.percent) + '%';
}

} // namespace moatctl
