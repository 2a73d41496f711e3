#include "engine/copy/FVNewFileProfile.h"

#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileStatus.h"
#include "fs/FVInodeFlags.h"

#include <sys/stat.h>

namespace ferrovane {

const FVStartingState* FVNewFileProfile::startOf(int fd) {
    if (known_) return &start_;
    struct stat st {};
    if (FVFileStatus::fstat(fd, &st) != 0) return nullptr;
    ssize_t names = FVExtendedAttributes(fd, false).namesSize();
    start_ = {st.st_uid, st.st_gid, names != 0};
    hasCopiedFlags_ = FVInodeFlags::hasCopiedFlags(fd);
    known_ = true;
    return &start_;
}

}  // namespace ferrovane
