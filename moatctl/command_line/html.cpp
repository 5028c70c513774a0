#include "moatctl/command_line/html.hpp"

#include "text/one_line.hpp"

namespace moatctl
{

std::string html(std::string_view text)
{
    std::string safe;
    for (const char character : text::oneLine(text, std::string::npos)) {
        switch (character) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        case '\'':
            safe += "&#39;";
            break;
        default:
            safe += character;
        }
    }
    return safe;
}

} // namespace moatctl
