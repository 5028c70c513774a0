// A folder that is there while an object lives.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>

class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "moatkeeper_unit_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        m_path = pattern;
    }
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    std::string path(const std::string& name = "") const { return (name.empty() ? m_path : m_path / name).string(); }

    void write(const std::string& name, const std::string& content, mode_t mode = 0600) const
    {
        std::ofstream(m_path / name) << content;
        chmod(path(name).c_str(), mode);
    }
    std::string read(const std::string& name) const
    {
        std::ostringstream content;
        content << std::ifstream(m_path / name).rdbuf();
        return content.str();
    }
    bool has(const std::string& name) const { return std::filesystem::exists(m_path / name); }

private:
    std::filesystem::path m_path;
};
