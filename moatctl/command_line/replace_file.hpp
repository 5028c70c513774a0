// A file that is always whole for whoever reads it.
#pragma once

#include <string>
#include <string_view>

namespace moatctl
{

// Puts the content in the file's place, readable for everybody. What is there stays until then, and when it fails:
// Failure(Output), one line. It fails when that is anything but a file, /dev/null or a symbolic link, say.
void replaceFile(const std::string& path, std::string_view content);

} // namespace moatctl
