#include "platform_fake/journal.hpp"

namespace fake
{

void Journal::record(bool on)
{
    if (on)
        m_lines.clear();
    m_on = on;
}

void Journal::note(std::initializer_list<std::string_view> parts)
{
    if (!m_on)
        return;
    std::string& line = m_lines.emplace_back();
    for (const std::string_view part : parts)
        line += part;
}

Journal& journal()
{
    static Journal instance;
    return instance;
}

} // namespace fake
