#include "platform_linux/queue/refusals.hpp"

#include <algorithm>

namespace zol::cfg
{

namespace
{

// "-A" and "CHAIN" of "ebtables -A CHAIN ...".
struct Head {
    std::string_view option;
    std::string_view chain;
};

std::string_view takeWord(std::string_view& text)
{
    text.remove_prefix(std::min(text.size(), text.find_first_not_of(' ')));
    const std::string_view word = text.substr(0, text.find_first_of(" ;"));
    text.remove_prefix(word.size());
    return word;
}

Head headOf(std::string_view line)
{
    takeWord(line);
    const std::string_view option = takeWord(line);
    return {option, takeWord(line)};
}

} // namespace

void Refusals::noteLine(std::string_view line)
{
    if (m_refusals.empty())
        return;
    const Head head = headOf(line);
    if (head.option == "-F" || head.option == "-X")
        doubt([&](std::string_view other) { return headOf(other).chain == head.chain; });
    else if (head.option == "-P" || head.option == "-D" || head.option == "-N" || head.option == "-I")
        doubt([&](std::string_view other) {
            const Head refused = headOf(other);
            return refused.chain == head.chain && refused.option == head.option;
        });
}

bool Refusals::add(std::string_view line, const std::string& reason)
{
    Refusal& refusal = m_refusals[std::string(line)];
    refusal.doubtful = false;
    refusal.fresh = true;
    if (refusal.reason == reason)
        return false;
    refusal.reason = reason;
    return true;
}

std::vector<std::string> Refusals::takeGone()
{
    std::vector<std::string> gone;
    for (auto entry = m_refusals.begin(); entry != m_refusals.end();) {
        entry->second.fresh = false;
        if (entry->second.doubtful) {
            gone.push_back(entry->first);
            entry = m_refusals.erase(entry);
        } else {
            ++entry;
        }
    }
    return gone;
}

void Refusals::forEachAddition(
    const std::function<void(const std::string& line, const std::string& reason)>& call) const
{
    for (const auto& [line, refusal] : m_refusals) {
        const std::string_view option = headOf(line).option;
        if (option != "-D" && option != "-F" && option != "-X")
            call(line, refusal.reason);
    }
}

void Refusals::doubt(const std::function<bool(std::string_view)>& which)
{
    for (auto& [line, refusal] : m_refusals) {
        if (!refusal.doubtful && !refusal.fresh && which(line))
            refusal.doubtful = true;
    }
}

} // namespace zol::cfg
