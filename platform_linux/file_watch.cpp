#include "platform_linux/file_watch.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string_view>
#include <utility>

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace zol::cfg
{

FileWatch::FileWatch(const std::string& path, tessera::net::EventDispatcher::State& dispatcher,
                     std::function<void()> appeared)
    : m_path(path), m_dispatcher(dispatcher), m_appeared(std::move(appeared))
{
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
    findPlaces(descriptor);
    if (m_places.empty()) {
        close(descriptor);
        return;
    }
    m_descriptor = descriptor;
    m_dispatcher.addDescriptor(m_descriptor, EPOLLIN, [this](std::uint32_t) {
        if (!readEvents())
            return;
        findPlaces(m_descriptor); // what appeared may be a link
        m_appeared();
    });
}

// The path itself, then where links lead from there. What cannot be watched is left out.
void FileWatch::findPlaces(int descriptor)
{
    constexpr int mostLinks = 8;
    m_places.clear();
    std::string path = m_path;
    for (int links = 0; links <= mostLinks; ++links) {
        const std::size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "./" : path.substr(0, slash + 1);
        const int watch = inotify_add_watch(descriptor, folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
        if (watch >= 0)
            m_places.push_back({watch, slash == std::string::npos ? path : path.substr(slash + 1)});
        std::array<char, PATH_MAX> target;
        const ssize_t length = readlink(path.c_str(), target.data(), target.size());
        if (length <= 0)
            return;
        const std::string_view text(target.data(), static_cast<std::size_t>(length));
        path = text.front() == '/' ? std::string(text) : folder + std::string(text);
    }
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
        const char* const name = event.len > 0 ? buffer.data() + at : ""; // ends with a zero byte
        const auto isIt = [name, watch = event.wd](const Place& place) {
            return place.watch == watch && place.name == name;
        };
        found = found || (event.mask & IN_Q_OVERFLOW) != 0 || std::any_of(m_places.begin(), m_places.end(), isIt);
        at += event.len;
    }
    return found;
}

} // namespace zol::cfg
