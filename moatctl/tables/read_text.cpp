#include "moatctl/tables/read_text.hpp"

#include "moatctl/exit_status.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <istream>
#include <new>
#include <poll.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace moatctl
{

namespace
{

class Collector
{
public:
    Collector(const std::string& path, const ReadLimits& limits) : m_path(path), m_limits(limits) {}

    void add(std::string_view part)
    {
        if (part.size() > m_limits.bytes - m_text.size())
            tooLarge("more than " + std::to_string(m_limits.bytes) + " bytes");
        m_text += part;
    }
    void expect(std::size_t size)
    {
        if (size > m_limits.bytes)
            tooLarge(std::to_string(size) + " bytes");
        m_text.reserve(size);
    }
    std::string take() { return std::move(m_text); }

    [[noreturn]] void fail(const std::string& why) const
    {
        throw Failure(ExitStatus::BadInput, nameOf(m_path) + ": cannot be read: " + why);
    }

private:
    [[noreturn]] void tooLarge(const std::string& size) const
    {
        fail(size + "; expected at most " + std::to_string(m_limits.bytes));
    }

    const std::string& m_path;
    const ReadLimits& m_limits;
    std::string m_text;
};

class File
{
public:
    // Does not wait for somebody to open the other end of a pipe.
    explicit File(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
    ~File()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

void readStream(std::istream& in, Collector& collector)
{
    std::array<char, 65536> block{};
    while (in) {
        in.read(block.data(), block.size());
        collector.add({block.data(), static_cast<std::size_t>(in.gcount())});
    }
    if (in.bad())
        collector.fail(std::strerror(EIO));
}

void readFile(const std::string& path, const ReadLimits& limits, Collector& collector)
{
    const File file(path);
    struct stat status {
    };
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
        collector.fail(std::strerror(errno));
    if (S_ISREG(status.st_mode))
        collector.expect(static_cast<std::size_t>(status.st_size));
    std::array<char, 65536> block{};
    for (;;) {
        pollfd wanted{file.get(), POLLIN, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(limits.silence.count()));
        if (ready == 0)
            collector.fail("nothing came for " + std::to_string(limits.silence.count()) + " ms");
        const ssize_t got = ready < 0 ? -1 : read(file.get(), block.data(), block.size());
        if (got == 0)
            return;
        if (got > 0)
            collector.add({block.data(), static_cast<std::size_t>(got)});
        else if (errno != EINTR && errno != EAGAIN)
            collector.fail(std::strerror(errno));
    }
}

} // namespace

std::string readText(std::istream& standardInput, const std::string& path, const ReadLimits& limits)
{
    Collector collector(path, limits);
    try {
        if (path == "-")
            readStream(standardInput, collector);
        else
            readFile(path, limits, collector);
    } catch (const std::bad_alloc&) {
        collector.fail("there is not enough memory for it");
    }
    return collector.take();
}

std::string nameOf(const std::string& path)
{
    return path == "-" ? "standard input" : path;
}

} // namespace moatctl
