// Files of a few lines, as the kernel shows them under /proc.
#pragma once

#include <string>

namespace text
{

// The file's first bytes, 64 kB at most; empty when it cannot be read. Throws std::bad_alloc only.
std::string readSmallFile(const std::string& path);

} // namespace text
