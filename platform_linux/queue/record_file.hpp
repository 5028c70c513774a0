// What is written down for the next process: a file whose content is a Footprint (footprint.hpp) as text. Only its
// owner may have written it, and it is replaced as a whole.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ebtables
{

inline constexpr const char* defaultRecordFolder = "/run/moatkeeper";

// The file "tables" and a lock in a folder of mode 0700. Nothing here throws but std::bad_alloc; the operations return
// a reason, "" when all went well.
class RecordFile
{
public:
    explicit RecordFile(std::string folder) : m_folder(std::move(folder)) {}
    ~RecordFile();
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    // Makes the folder if it is missing.
    std::string prepare();

    // The content; nothing and no reason when there is no file. A file or folder that somebody else owns or may write
    // gives a reason.
    std::optional<std::string> read(std::string& reason) const;

    // A cut at any byte leaves the old or the new content.
    std::string write(std::string_view content) const;
    std::string remove() const;

    // Takes the lock that children hold as well: false while a child of a killed process is still at work.
    bool lock();
    int lockDescriptor() const { return m_lock; }

    // Notes that something was carried out just now: as the modification time of the file "lock" in the folder, where
    // moatctl finds it. Taking the lock sets it to zero: nothing yet.
    std::string noteCommit() const;

    std::string path() const { return m_folder + "/tables"; }

private:
    std::string m_folder;
    int m_lock = -1;
    bool m_locked = false;
};

// Names the network namespace that this process is in.
std::string networkNamespace();

} // namespace ebtables
