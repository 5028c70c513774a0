// Tells at once when a file appears, a server's socket for example.
#pragma once

#include "platform_linux/event_dispatcher.hpp"

#include <functional>
#include <string>
#include <vector>

namespace zol::cfg
{

// Threading: the dispatcher's thread.
class FileWatch
{
public:
    // Calls back after a file of this path was made or moved to its place, or may have been; if the path is a link,
    // also of the path that it leads to. It may be called without a file there. The dispatcher must outlive it.
    FileWatch(const std::string& path, tessera::net::EventDispatcher::State& dispatcher,
              std::function<void()> appeared);
    ~FileWatch();
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

    // Begins; what there is already is not told. Where the folder cannot be watched (it is missing, or there are too
    // many watches) it is never called: whoever must not miss the file looks for it now and then as well.
    void start();
    void stop();

private:
    struct Place {
        int watch; // the kernel's number for the folder
        std::string name;
    };

    void findPlaces(int descriptor);
    bool readEvents() const;

    const std::string m_path;
    std::vector<Place> m_places; // where it may appear
    tessera::net::EventDispatcher::State& m_dispatcher;
    const std::function<void()> m_appeared;
    int m_descriptor = -1; // while it watches
};

} // namespace zol::cfg
