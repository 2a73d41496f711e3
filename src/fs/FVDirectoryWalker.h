#pragma once
// A pre-order walk of a folder tree in which every entry is reached through its folder's
// descriptor (openat, fstatat) rather than by its whole path. So the walk goes on below
// PATH_MAX-deep folders, and a folder that is swapped for a symbolic link while the walk is
// under way is reported, never followed: each folder is entered with O_NOFOLLOW from the
// descriptor of the folder that listed it. Symbolic links are entries, never followed; folders
// on another file system than the root are returned but not entered.

#include "fs/FVFileDescriptor.h"

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVDirectoryWalker {
public:
    struct Entry {
        // The root as given, then the root's path joined with "/" and each name.
        std::string path;
        // Error entries carry only path, level and error.
        struct stat st {};
        // 0 for the root.
        size_t level = 0;
        // Non-zero: the entry could not be examined (errno), or, for a folder already returned,
        // its contents could not be listed.
        int error = 0;
        // The folder that holds the entry (not the root, which has none); valid until next().
        int parentFd = -1;
        size_t nameOffset = 0;
        size_t relativeOffset = 0;

        bool isDirectory() const { return error == 0 && S_ISDIR(st.st_mode); }
        std::string_view name() const { return std::string_view(path).substr(nameOffset); }
        // The same, for calls that take a C string (it ends the path, so no copy is needed).
        const char* nameCString() const { return path.c_str() + nameOffset; }
        // "" for the root, "/a/b" below it.
        std::string_view relativePath() const { return std::string_view(path).substr(relativeOffset); }
    };

    explicit FVDirectoryWalker(std::string root);
    // The root's last component is looked up in rootParent, an open folder, and never followed
    // if it is a symbolic link: a walk of a tree reached without following links (a confined
    // folder) stays inside it.
    FVDirectoryWalker(std::string root, FVFd rootParent);
    ~FVDirectoryWalker();
    FVDirectoryWalker(const FVDirectoryWalker&) = delete;
    FVDirectoryWalker& operator=(const FVDirectoryWalker&) = delete;

    // The next entry, or nullptr when the walk is over. The entry stays valid until the next call.
    const Entry* next();
    // The folder just returned is not entered.
    void skipChildren() { descendPending_ = false; }
    // Entries other than folders then carry only their type (st_mode's S_IFMT bits) where the
    // folder listing tells it, which saves one stat per file for walks that need no more.
    void setTypesOnly(bool typesOnly) { typesOnly_ = typesOnly; }

private:
    struct Folder;

    bool enterPendingFolder();
    bool reopenAfterLeaving(Folder& left);
    static int readNames(Folder& folder);

    std::string root_;
    FVFd rootParent_;
    std::string rootName_;
    size_t baseLength_;
    dev_t rootDevice_ = 0;
    bool started_ = false;
    bool descendPending_ = false;
    bool typesOnly_ = false;
    std::vector<Folder> stack_;
    Entry entry_;
};

}  // namespace ferrovane
