#include "platform_linux/queue/record_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace ebtables
{

namespace
{

constexpr off_t maxSize = 16 << 20;

std::string failed(const char* what, const std::string& path)
{
    return std::string("cannot ") + what + ' ' + path + ": " + std::strerror(errno);
}

std::string checkOwner(const struct stat& status, const std::string& path)
{
    if (status.st_uid != geteuid())
        return path + " belongs to user " + std::to_string(status.st_uid) + ", expected " + std::to_string(geteuid());
    if ((status.st_mode & 022) != 0)
        return path + " can be written by others";
    return {};
}

// The lock's time of modification is that of the last commit: set without a write, and there also while nothing has to
// be recorded. The kernel's own time for a file lags by some milliseconds.
bool setTime(int lock, const timespec& time)
{
    const timespec times[] = {time, time};
    return futimens(lock, times) == 0;
}

std::string lockIn(const std::string& folder)
{
    return folder + "/lock";
}

} // namespace

RecordFile::~RecordFile()
{
    if (m_lock >= 0)
        close(m_lock);
}

std::string RecordFile::prepare()
{
    if (mkdir(m_folder.c_str(), 0700) != 0 && errno != EEXIST)
        return failed("make the folder", m_folder);
    struct stat status;
    if (lstat(m_folder.c_str(), &status) != 0)
        return failed("look at", m_folder);
    if (!S_ISDIR(status.st_mode))
        return m_folder + " is no folder";
    if (std::string wrong = checkOwner(status, m_folder); !wrong.empty())
        return wrong;
    if ((status.st_mode & 07777) != 0700 && chmod(m_folder.c_str(), 0700) != 0)
        return failed("set the mode of", m_folder);
    if (lstat(lockIn(m_folder).c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        return lockIn(m_folder) + " is no file of ours";
    return {};
}

std::optional<std::string> RecordFile::read(std::string& reason) const
{
    const int file = open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0) {
        if (errno != ENOENT)
            reason = failed("open", path());
        return std::nullopt;
    }
    std::optional<std::string> content;
    struct stat status;
    if (fstat(file, &status) != 0) {
        reason = failed("look at", path());
    } else if (!S_ISREG(status.st_mode) || status.st_size > maxSize) {
        reason = path() + " is no file of ours";
    } else if (reason = checkOwner(status, path()); reason.empty()) {
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        std::size_t got = 0;
        while (got < text.size()) {
            const ssize_t some = ::read(file, text.data() + got, text.size() - got);
            if (some <= 0)
                break;
            got += static_cast<std::size_t>(some);
        }
        text.resize(got); // a short one does not pass its checksum
        content = std::move(text);
    }
    close(file);
    return content;
}

std::string RecordFile::write(std::string_view content) const
{
    const std::string temporary = path() + ".new";
    unlink(temporary.c_str()); // whatever it is, opening it could wait for ever
    const int file = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0)
        return failed("write", temporary);
    bool good = true;
    while (good && !content.empty()) {
        const ssize_t some = ::write(file, content.data(), content.size());
        good = some > 0 || (some < 0 && errno == EINTR);
        if (some > 0)
            content.remove_prefix(static_cast<std::size_t>(some));
    }
    good = good && fsync(file) == 0;
    std::string reason = good ? "" : failed("write", temporary);
    close(file);
    if (good && rename(temporary.c_str(), path().c_str()) != 0)
        reason = failed("replace", path());
    return reason;
}

std::string RecordFile::remove() const
{
    return unlink(path().c_str()) == 0 || errno == ENOENT ? "" : failed("remove", path());
}

bool RecordFile::lock()
{
    const std::string lockPath = lockIn(m_folder);
    if (m_lock < 0)
        m_lock = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (m_lock < 0)
        return true; // no folder: nothing is recorded either, and the reason was told
    if (!m_locked && flock(m_lock, LOCK_EX | LOCK_NB) == 0) {
        m_locked = true;
        setTime(m_lock, {}); // ours has carried out nothing yet
    }
    return m_locked;
}

std::string RecordFile::noteCommit() const
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return !m_locked || setTime(m_lock, now) ? "" : failed("set the time of", lockIn(m_folder));
}

std::string networkNamespace()
{
    struct stat status;
    if (stat("/proc/self/ns/net", &status) != 0)
        return "unknown";
    return std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
}

} // namespace ebtables
