#include "ovsdb/row.hpp"

namespace ovsdb
{

namespace
{

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

} // namespace

std::string Uuid::toText() const
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::optional<Uuid> Uuid::fromText(std::string_view text)
{
    if (text.size() != 36)
        return std::nullopt;
    Uuid uuid;
    std::size_t digit = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-')
                return std::nullopt;
            continue;
        }
        const int value = hexDigit(text[i]);
        if (value < 0)
            return std::nullopt;
        std::uint8_t& byte = uuid.bytes[digit / 2];
        byte = static_cast<std::uint8_t>(byte * 16 + value);
        ++digit;
    }
    return uuid;
}

RowValues::RowValues(std::span<const tessera::Value> values)
{
    std::size_t length = 0;
    for (const tessera::Value& value : values)
        length += value.getText().size();
    m_texts.reserve(length);
    m_cells.reserve(values.size());
    for (const tessera::Value& value : values) {
        m_texts += value.getText();
        if (value.isText())
            m_cells.push_back({.number = static_cast<std::uint32_t>(m_texts.size()), .isText = true});
        else
            m_cells.push_back({.number = static_cast<std::uint32_t>(value.getInteger()), .isText = false});
    }
}

tessera::Value RowValues::operator[](std::size_t column) const
{
    return m_cells[column].isText ? tessera::Value(std::string(text(column))) : tessera::Value(integer(column));
}

std::vector<tessera::Value> RowValues::toList() const
{
    std::vector<tessera::Value> list;
    list.reserve(size());
    for (std::size_t i = 0; i < size(); ++i)
        list.push_back((*this)[i]);
    return list;
}

std::string_view RowValues::text(std::size_t column) const
{
    if (!m_cells[column].isText)
        return {};
    std::size_t before = column;
    while (before > 0 && !m_cells[before - 1].isText)
        --before;
    const std::size_t begin = before > 0 ? m_cells[before - 1].number : 0;
    return std::string_view(m_texts).substr(begin, m_cells[column].number - begin);
}

std::int32_t RowValues::integer(std::size_t column) const
{
    return m_cells[column].isText ? 0 : static_cast<std::int32_t>(m_cells[column].number);
}

std::size_t memoryOf(const Row& row)
{
    return sizeof row + row.values.memory();
}

} // namespace ovsdb
