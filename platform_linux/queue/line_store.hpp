// The lines of a commit, for messages.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zol::cfg
{

// One block of memory: thousands of lines leave no holes between what stays when they go. Threading: no shared state.
// No operation throws but std::bad_alloc.
class LineStore
{
public:
    void add(std::string_view line)
    {
        m_text += line;
        m_ends.push_back(m_text.size());
    }

    std::size_t size() const { return m_ends.size(); }

    // Valid until the next call that is not const.
    std::string_view operator[](std::size_t index) const
    {
        const std::size_t begin = index == 0 ? 0 : m_ends[index - 1];
        return std::string_view(m_text).substr(begin, m_ends[index] - begin);
    }

    void clear()
    {
        m_text.clear();
        m_text.shrink_to_fit();
        m_ends.clear();
        m_ends.shrink_to_fit();
    }

private:
    std::string m_text;
    std::vector<std::size_t> m_ends;
};

} // namespace zol::cfg
