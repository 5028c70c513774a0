#include "moatctl/command_line/replace_file.hpp"

#include "moatctl/exit_status.hpp"
#include "moatctl/tables/problem.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace moatctl
{

namespace
{

// 0 or an error.
int writeAll(int descriptor, std::string_view content)
{
    while (!content.empty()) {
        const ssize_t written = write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return errno;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    constexpr mode_t readable = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
    return fchmod(descriptor, readable) == 0 ? 0 : errno;
}

} // namespace

void replaceFile(const std::string& path, std::string_view content)
{
    const auto failed = [&](int error) {
        throw Failure(ExitStatus::Output, inQuotes(path) + ": cannot be written: " + std::strerror(error));
    };
    struct stat status {
    };
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw Failure(ExitStatus::Output, inQuotes(path) + ": cannot be replaced: expected a regular file or none");
    // Beside it, under a name that nobody takes for the file's.
    const std::size_t name = path.rfind('/') + 1; // 0 without a folder
    std::string fresh = path.substr(0, name) + '.' + path.substr(name) + ".XXXXXX";
    const int descriptor = mkostemp(fresh.data(), O_CLOEXEC);
    if (descriptor < 0)
        failed(errno);
    int error = writeAll(descriptor, content);
    if (close(descriptor) != 0 && error == 0)
        error = errno;
    if (error == 0 && std::rename(fresh.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return;
    unlink(fresh.c_str());
    failed(error);
}

} // namespace moatctl
