#include "ovsdb/row.hpp"

namespace ovsdb
{

namespace
{

constexpr std::size_t textInside = 15; // longer ones take memory of their own

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

std::size_t memoryOf(const Row& row)
{
    std::size_t bytes = sizeof row;
    for (const tessera::Value& value : row.values) {
        const std::size_t text = value.getText().size();
        bytes += sizeof value + (text > textInside ? text + 1 : 0);
    }
    return bytes;
}

} // namespace ovsdb
