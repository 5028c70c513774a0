#include "moatctl/command_line/split_line.hpp"

namespace moatctl
{

SplitLine splitLine(std::string_view line)
{
    SplitLine result;
    std::string word;
    bool inWord = false;
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char character = line[i];
        if (quote != '\0') {
            if (character == quote)
                quote = '\0';
            else if (character == '\\' && quote == '"' && i + 1 < line.size())
                word += line[++i];
            else
                word += character;
            continue;
        }
        if (character == '\'' || character == '"') {
            quote = character;
            inWord = true;
        } else if (character == ' ' || character == '\t' || character == '\r') {
            if (inWord)
                result.words.push_back(std::move(word));
            word.clear();
            inWord = false;
        } else if (character == '#' && !inWord) {
            break;
        } else {
            word += character;
            inWord = true;
        }
    }
    if (quote != '\0')
        result.error = std::string("missing closing quotation mark ") + quote;
    if (inWord)
        result.words.push_back(std::move(word));
    return result;
}

} // namespace moatctl
