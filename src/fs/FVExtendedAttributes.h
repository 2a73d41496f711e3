#pragma once
// The one reader and writer of extended attributes: on an open descriptor, on an O_PATH one
// (through /proc/self/fd, as the f-calls refuse such descriptors) or on a path whose final
// symbolic link is not followed.

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVExtendedAttributes {
public:
    FVExtendedAttributes(int fd, bool pathOnly);
    // The path is not copied: it must outlive this object.
    explicit FVExtendedAttributes(const std::string& path) : path_(path.c_str()) {}

    // The names, each ending in a NUL, and their total size; -1 with errno on failure.
    ssize_t listNames(std::vector<char>& names) const;
    // The size the names would take, without reading them: 0 for none, -1 with errno.
    ssize_t namesSize() const;
    // The value's size, or -1 with errno.
    ssize_t readValue(const char* name, std::vector<char>& value) const;
    int writeValue(const char* name, const std::vector<char>& value, size_t size) const;
    int removeValue(const char* name) const;

    // The two names that are neither compared nor copied.
    static bool isSkipped(std::string_view name);
    // Whether a copy carries the attribute: every name but the skipped two, and the
    // access-control lists only when they are cloned.
    static bool isCarried(std::string_view name, bool includeACL);
    // Every attribute a copy carries as "name:<hex value>\n", in the order the file system lists
    // them; "" when they cannot be listed. A value that cannot be read is left out and its name
    // given to unreadable.
    std::string signature(bool includeACL, const std::function<void(const char* name)>& unreadable) const;

private:
    const char* path_ = nullptr;  // the path mode; otherwise the descriptor below
    int fd_ = -1;
    char procPath_[32] = {};  // set for an O_PATH descriptor
};

}  // namespace ferrovane
