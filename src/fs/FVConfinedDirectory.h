#pragma once
// A folder tree that is only ever entered below its root, never through a symbolic link. The
// destination is one: a link planted inside it can never send a write, a removal or a metadata
// change outside it. A source is another: a folder swapped for a link while a run reads it can
// never make the run read (and back up) what lies outside the source.
//
// The root is opened once (following links: the user chose that path). Every folder below it is
// reached from the root's descriptor without following any symbolic link (openat2 with
// RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS, or one O_NOFOLLOW open per component where openat2 is
// missing), and every change is then made relative to that folder's descriptor (openat, mkdirat,
// renameat, unlinkat with AT_SYMLINK_NOFOLLOW semantics). A link in the way is an error (ELOOP or
// ENOTDIR), never something to follow. Relative paths have no "." or ".." components; "" is
// the root itself. Errors are errno values; 0 means success.

#include "fs/FVFileDescriptor.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

class FVConfinedDirectory {
public:
    explicit FVConfinedDirectory(std::string rootPath);

    // 0, or why the root could not be opened (then every operation fails with that error).
    int openError() const { return openError_; }
    const std::string& rootPath() const { return rootPath_; }

    // The part of an absolute path below the root: "" for the root, "a/b" for root + "/a/b";
    // nothing when the path is not below the root.
    std::optional<std::string> relativePath(std::string_view absolutePath) const;

    // A descriptor (O_RDONLY | O_DIRECTORY) of the folder at a relative path. With createMissing,
    // missing folders below the root are made, one by one, with mode 0777 minus the umask;
    // *created tells whether any was. Nothing at or above the root is ever created.
    // createdFrom, where given, is the offset in relative of the first folder made (npos: none).
    FVFd openFolder(std::string_view relative, bool createMissing, int* error, bool* created = nullptr,
                    size_t* createdFrom = nullptr) const;

    // The status of the item at a relative path, a symbolic link itself rather than what it
    // points to; 0, or the errno why it cannot be examined.
    int statItem(std::string_view relative, struct stat* st) const;

    // Moves one relative location to another; with createMissing, the target's missing folders
    // are made first (and removed again when the move fails). Replaces an existing target the way
    // rename(2) does, unless noReplace is set: then an existing target makes the move fail with
    // EEXIST.
    int moveItem(std::string_view fromRelative, std::string_view toRelative, bool createMissing,
                 bool noReplace = false) const;
    // Removes the item at a relative path, a folder with everything in it.
    int removeItem(std::string_view relative) const;

    // Helpers for callers that already hold a folder descriptor; name is a single component.
    // Removes a file, a link (not its target) or a folder with everything in it.
    static int removeRecursivelyAt(int dirFd, const std::string& name);
    // Renames only where the target name is free (EEXIST otherwise); 0 or the errno. Where the
    // file system has no RENAME_NOREPLACE (ntfs-3g, exfat-fuse answer EINVAL), the target is
    // looked up first and then renamed: safe only while nothing else writes to the folder, as
    // under the destination lock.
    static int renameWithoutReplacing(int fromDirFd, const char* fromName, int toDirFd, const char* toName);

private:
    std::string rootPath_;
    FVFd root_;
    int openError_ = 0;
};

}  // namespace ferrovane
