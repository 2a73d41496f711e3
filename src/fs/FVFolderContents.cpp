#include "fs/FVFolderContents.h"

#include "fs/FVFileDescriptor.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <string_view>

namespace ferrovane::FVFolderContents {

namespace {

// Whether the folder holds an entry whose name the filter accepts; nothing when it cannot be
// listed. "." and ".." are never offered.
std::optional<bool> folderHoldsEntry(const std::string& path, bool (*accepted)(std::string_view name)) {
    int fd = FVLongPath::open(path, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return std::nullopt;
    DIR* dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return std::nullopt;
    }
    bool found = false;
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (name != "." && name != ".." && accepted(name)) {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

}  // namespace

bool pathContainsUserFilePaths(const std::string& path) {
    return folderHoldsEntry(path, [](std::string_view name) {
               return !name.starts_with(".") && name != "Desktop DB" && name != "Desktop DF";
           }).value_or(false);
}

std::optional<bool> folderHasEntries(const std::string& path) {
    return folderHoldsEntry(path, [](std::string_view) { return true; });
}

}  // namespace ferrovane::FVFolderContents
