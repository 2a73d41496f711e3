#include "engine/FVNewFileProfile.h"

#include "fs/FVInodeFlags.h"

#include <sys/stat.h>
#include <sys/xattr.h>

namespace ferrovane {

const FVStartingState* FVNewFileProfile::startOf(int fd) {
    if (known_) return &start_;
    struct stat st {};
    if (fstat(fd, &st) != 0) return nullptr;
    ssize_t names = flistxattr(fd, nullptr, 0);
    start_ = {st.st_uid, st.st_gid, names != 0};
    hasCopiedFlags_ = FVInodeFlags::hasCopiedFlags(fd);
    known_ = true;
    return &start_;
}

}  // namespace ferrovane
