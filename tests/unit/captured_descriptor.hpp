// Redirects a file descriptor into memory while an object lives.
#pragma once

#include <string>
#include <sys/mman.h>
#include <unistd.h>

class CapturedDescriptor
{
public:
    explicit CapturedDescriptor(int fd) : m_fd(fd), m_saved(dup(fd)), m_memory(memfd_create("captured", MFD_CLOEXEC))
    {
        dup2(m_memory, m_fd);
    }
    ~CapturedDescriptor()
    {
        dup2(m_saved, m_fd);
        close(m_saved);
        close(m_memory);
    }
    CapturedDescriptor(const CapturedDescriptor&) = delete;
    CapturedDescriptor& operator=(const CapturedDescriptor&) = delete;

    // What has been written so far.
    std::string text() const
    {
        std::string content(static_cast<std::size_t>(lseek(m_memory, 0, SEEK_END)), '\0');
        const ssize_t length = pread(m_memory, content.data(), content.size(), 0);
        content.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return content;
    }

private:
    int m_fd;
    int m_saved;
    int m_memory;
};
