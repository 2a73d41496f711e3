#include "fs/FVExtendedAttributes.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ferrovane {

namespace {

std::string hex(const char* bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out = "<";
    for (size_t i = 0; i < size; ++i) {
        if (i && i % 4 == 0) out += ' ';
        auto c = static_cast<unsigned char>(bytes[i]);
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out + ">";
}

}  // namespace

FVExtendedAttributes::FVExtendedAttributes(int fd, bool pathOnly) : fd_(fd) {
    if (pathOnly) snprintf(procPath_, sizeof procPath_, "/proc/self/fd/%d", fd);
}

ssize_t FVExtendedAttributes::listNames(std::vector<char>& names) const {
    auto list = [this](char* buffer, size_t size) {
        if (path_) return llistxattr(path_, buffer, size);
        return procPath_[0] ? listxattr(procPath_, buffer, size) : flistxattr(fd_, buffer, size);
    };
    for (;;) {
        ssize_t size = list(nullptr, 0);
        if (size <= 0) return size;
        names.resize(static_cast<size_t>(size));
        size = list(names.data(), names.size());
        if (size >= 0 || errno != ERANGE) return size;
    }
}

ssize_t FVExtendedAttributes::namesSize() const {
    if (path_) return llistxattr(path_, nullptr, 0);
    return procPath_[0] ? listxattr(procPath_, nullptr, 0) : flistxattr(fd_, nullptr, 0);
}

ssize_t FVExtendedAttributes::readValue(const char* name, std::vector<char>& value) const {
    auto get = [this, name](void* buffer, size_t size) {
        if (path_) return lgetxattr(path_, name, buffer, size);
        return procPath_[0] ? getxattr(procPath_, name, buffer, size) : fgetxattr(fd_, name, buffer, size);
    };
    for (;;) {
        ssize_t size = get(nullptr, 0);
        if (size < 0) return size;
        value.resize(static_cast<size_t>(size));
        size = get(value.data(), value.size());
        if (size >= 0 || errno != ERANGE) return size;
    }
}

int FVExtendedAttributes::writeValue(const char* name, const std::vector<char>& value, size_t size) const {
    if (path_) return lsetxattr(path_, name, value.data(), size, 0);
    return procPath_[0] ? setxattr(procPath_, name, value.data(), size, 0) : fsetxattr(fd_, name, value.data(), size, 0);
}

int FVExtendedAttributes::removeValue(const char* name) const {
    if (path_) return lremovexattr(path_, name);
    return procPath_[0] ? removexattr(procPath_, name) : fremovexattr(fd_, name);
}

bool FVExtendedAttributes::isSkipped(std::string_view name) {
    return name == "com.apple.quarantine" || name == "com.apple.FinderInfo";
}

bool FVExtendedAttributes::isCarried(std::string_view name, bool includeACL) {
    if (isSkipped(name)) return false;
    return includeACL || (name != "system.posix_acl_access" && name != "system.posix_acl_default");
}

std::string FVExtendedAttributes::signature(bool includeACL,
                                            const std::function<void(const char* name)>& unreadable) const {
    std::vector<char> names, value;
    ssize_t listSize = listNames(names);
    if (listSize <= 0) return "";
    std::string signature;
    for (size_t pos = 0; pos < static_cast<size_t>(listSize);) {
        const char* name = names.data() + pos;
        pos += strlen(name) + 1;
        if (!isCarried(name, includeACL)) continue;
        signature += name;
        ssize_t size = readValue(name, value);
        if (size < 0) {
            unreadable(name);
            continue;
        }
        signature += ":" + hex(value.data(), static_cast<size_t>(size)) + "\n";
    }
    return signature;
}

}  // namespace ferrovane
