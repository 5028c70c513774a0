// Things by their names that are forgotten when nobody asks for them any more.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

namespace compiled
{

template <typename T>
class Remembered
{
public:
    // A new one if there is none of this name.
    T& operator[](const std::string& name)
    {
        Entry& entry = m_entries[name];
        entry.isUsed = true;
        return entry.thing;
    }

    // Forgets what was not asked for since the last time.
    void dropUnused()
    {
        std::erase_if(m_entries, [](const auto& entry) { return !entry.second.isUsed; });
        for (auto& [name, entry] : m_entries)
            entry.isUsed = false;
    }

private:
    struct Entry {
        T thing{};
        bool isUsed = false;
    };
    std::unordered_map<std::string, Entry> m_entries;
};

} // namespace compiled
