#include "text/small_file.hpp"

#include <cstddef>
#include <cstdio>

namespace text
{

std::string readSmallFile(const std::string& path)
{
    constexpr std::size_t most = 65536;
    std::FILE* file = std::fopen(path.c_str(), "re"); // e: no child gets it
    if (file == nullptr)
        return {};
    std::string content(most, '\0');
    content.resize(std::fread(content.data(), 1, most, file));
    std::fclose(file);
    content.shrink_to_fit();
    return content;
}

} // namespace text
