#pragma once
// One path with its metadata, read lazily by at most one lstat: the analysis asks a source item
// and its destination counterpart only what it needs.

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace ferrovane {

// None: not loaded, or the path does not exist.
enum class FVFileType { None, Regular, Directory, SymbolicLink, Socket, CharacterSpecial, BlockSpecial, Unknown };

const char* fileTypeName(FVFileType type);

class FVFileSystemItem {
public:
    explicit FVFileSystemItem(std::string path);
    // An item whose stat is already known (from a directory walk), so no lstat is needed.
    FVFileSystemItem(std::string path, const struct stat& st);
    static std::shared_ptr<FVFileSystemItem> itemWithPath(std::string path);
    // An item already found not to exist, so that no lstat is made for it.
    static std::shared_ptr<FVFileSystemItem> missingItem(std::string path);

    const std::string& path() const { return path_; }
    void loadStatAttributes();
    bool fileExists();
    bool isReadable();
    // True for everything but a directory, including a path that does not exist.
    bool isFile();
    FVFileType fileType();
    int posixPermissions();
    // Whole seconds since 1970.
    int64_t fileModificationDate();
    // Nanoseconds since 1970: what the change decision compares.
    int64_t fileModificationTimeNs();
    uint64_t fileSize();
    // Birth time where the file system records it (statx), queried anew on every call.
    std::optional<struct timespec> fileCreationDate();
    // The full lstat result, for cloning metadata; valid when fileExists().
    const struct stat& statBuffer();
    std::string description();

private:
    std::string path_;
    struct stat st_ {};
    bool readable_ = false;
    bool readableLoaded_ = false;
    bool statLoaded_ = false;
    bool exists_ = false;
};

using FVFileSystemItemPtr = std::shared_ptr<FVFileSystemItem>;

}  // namespace ferrovane
