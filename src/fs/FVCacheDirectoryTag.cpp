#include "fs/FVCacheDirectoryTag.h"

#include "fs/FVFileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace ferrovane::FVCacheDirectoryTag {

bool isTagged(int dirFd, const char* name) {
    // One open per folder, which fails in almost all of them. Non-blocking: a FIFO named like the
    // tag must not stop the walk.
    const std::string path = std::string(name) + "/" + kName;
    FVFd tag(openat(dirFd, path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat st {};
    if (!tag.valid() || fstat(tag.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    char head[kSignature.size()];
    size_t got = 0;
    while (got < sizeof head) {
        ssize_t n = read(tag.get(), head + got, sizeof head - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return got == sizeof head && std::string_view(head, got) == kSignature;
}

}  // namespace ferrovane::FVCacheDirectoryTag
