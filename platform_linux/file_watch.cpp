#include "platform_linux/file_watch.hpp"

#include <array>
#include <climits>
#include <cstring>
#include <utility>

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace zol::cfg
{

FileWatch::FileWatch(const std::string& path, tessera::net::EventDispatcher::State& dispatcher,
                     std::function<void()> appeared)
    : m_dispatcher(dispatcher), m_appeared(std::move(appeared))
{
    const std::size_t slash = path.rfind('/');
    m_folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    m_name = slash == std::string::npos ? path : path.substr(slash + 1);
}

FileWatch::~FileWatch()
{
    stop();
}

void FileWatch::start()
{
    if (m_descriptor >= 0)
        return;
    const int descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (descriptor < 0)
        return;
    if (inotify_add_watch(descriptor, m_folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0) {
        close(descriptor);
        return;
    }
    m_descriptor = descriptor;
    m_dispatcher.addDescriptor(m_descriptor, EPOLLIN, [this](std::uint32_t) {
        if (readEvents())
            m_appeared();
    });
}

void FileWatch::stop()
{
    if (m_descriptor < 0)
        return;
    m_dispatcher.removeDescriptor(m_descriptor);
    close(std::exchange(m_descriptor, -1));
}

// Whether the file is among what appeared. Events that got lost may have been about it.
bool FileWatch::readEvents() const
{
    alignas(inotify_event) std::array<char, 16 * (sizeof(inotify_event) + NAME_MAX + 1)> buffer;
    const ssize_t count = read(m_descriptor, buffer.data(), buffer.size());
    bool found = false;
    for (std::size_t at = 0; count > 0 && at + sizeof(inotify_event) <= static_cast<std::size_t>(count);) {
        inotify_event event;
        std::memcpy(&event, buffer.data() + at, sizeof event);
        at += sizeof event;
        found = found || (event.mask & IN_Q_OVERFLOW) != 0 ||
                (event.len > 0 && m_name == buffer.data() + at); // its name ends with a zero byte
        at += event.len;
    }
    return found;
}

} // namespace zol::cfg
