// A list that its copies share until one of them is changed: two programs of ten thousand rules that differ in one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

namespace compiled
{

// Read as a vector is. A reference or iterator into it is good until this list is changed.
template <typename T>
class List
{
public:
    using value_type = T;

    List() = default;
    List(std::vector<T> items) : m_items(items.empty() ? nullptr : std::make_shared<std::vector<T>>(std::move(items)))
    {
    }
    List(std::initializer_list<T> items) : List(std::vector<T>(items)) {}

    const T* data() const { return m_items ? m_items->data() : nullptr; }
    std::size_t size() const { return m_items ? m_items->size() : 0; }
    bool empty() const { return size() == 0; }
    const T* begin() const { return data(); }
    const T* end() const { return data() + size(); }
    const T& operator[](std::size_t place) const { return (*m_items)[place]; }
    const T& front() const { return m_items->front(); }

    // To change it. Whoever shares it keeps what it was.
    std::vector<T>& edit()
    {
        if (!m_items)
            m_items = std::make_shared<std::vector<T>>();
        else if (m_items.use_count() > 1)
            m_items = std::make_shared<std::vector<T>>(*m_items);
        return *m_items;
    }
    void push_back(T item) { edit().push_back(std::move(item)); }
    void clear() { m_items.reset(); }

    // Nothing was changed since one was copied from the other: what needs no look at the elements.
    bool isSharedWith(const List& other) const { return m_items == other.m_items; }
    bool operator==(const List& other) const { return isSharedWith(other) || std::ranges::equal(*this, other); }

private:
    std::shared_ptr<std::vector<T>> m_items; // null for none
};

} // namespace compiled
