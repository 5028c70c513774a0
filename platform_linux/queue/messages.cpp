#include "platform_linux/queue/messages.hpp"

#include "ebtables/line_parser.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <charconv>

namespace ebtables
{

namespace
{

// The tool has room for a list of about so many bytes. What is beyond is cut off, now and then without a trace.
constexpr std::size_t listRoom = 1020;

constexpr const char* noReason = "refused without a reason";

bool takeNumber(std::string_view& text, unsigned& number)
{
    const auto [next, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc())
        return false;
    text.remove_prefix(static_cast<std::size_t>(next - text.data()));
    return true;
}

// "ebtables-restore v1.8.9 (nf_tables): text" without what stands before the text.
std::string_view withoutProgram(std::string_view line)
{
    if (line.starts_with("ebtables")) {
        const std::size_t colon = line.find(": ");
        return colon == std::string_view::npos ? std::string_view() : line.substr(colon + 2);
    }
    return line;
}

bool speaksOfShortage(std::string_view line)
{
    static constexpr std::string_view signs[] = {"Cannot allocate memory", "No buffer space available",
                                                 "Too many open files"};
    return std::ranges::any_of(signs, [&](std::string_view sign) { return line.find(sign) != std::string_view::npos; });
}

} // namespace

Messages parseMessages(int exitCode, std::string_view errors)
{
    Messages messages;
    std::string previous;
    const std::string_view list = withoutProgram(errors.substr(0, errors.find_last_not_of('\n') + 1));
    messages.cut = exitCode == 4 && list.size() >= listRoom;
    while (!errors.empty()) {
        const std::size_t end = errors.find('\n');
        const bool complete = end != std::string_view::npos;
        std::string_view line = errors.substr(0, end);
        errors.remove_prefix(complete ? end + 1 : errors.size());
        line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
        line = withoutProgram(line);
        line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
        if (line.empty())
            continue;
        if (messages.text.size() < 300)
            messages.text += (messages.text.empty() ? "" : " / ") + text::oneLine(line, 200);

        messages.shortage = messages.shortage || speaksOfShortage(line);
        unsigned number = 0;
        std::string_view rest = line;
        if (exitCode == 4 && rest.starts_with("line ")) {
            rest.remove_prefix(5);
            if (complete && takeNumber(rest, number) && rest.starts_with(": "))
                messages.lines.push_back({number, rest.size() > 2 ? text::oneLine(rest.substr(2)) : noReason});
            else if (!complete)
                messages.cut = true;
        } else if (exitCode == 1 && rest.starts_with("line ")) {
            rest.remove_prefix(5);
            if (takeNumber(rest, number) && rest.starts_with(" failed")) {
                rest.remove_prefix(7);
                rest.remove_prefix(rest.starts_with(": ") ? 2 : 0);
                messages.lines.push_back({number, rest.empty() || rest == "." ? noReason : text::oneLine(rest)});
            }
        } else if (exitCode == 2 && rest.starts_with("Error occurred at line: ")) {
            rest.remove_prefix(24);
            if (takeNumber(rest, number))
                messages.lines.push_back({number, previous.empty() ? noReason : previous});
        }
        previous = text::oneLine(line);
    }
    return messages;
}

} // namespace ebtables
