#include "fs/FVSpaceUsage.h"

#include <fts.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>

namespace ferrovane::FVSpaceUsage {

std::optional<FVVolumeSpace> volumeAt(const std::string& path, int* error) {
    struct statvfs vfs {};
    struct stat st {};
    if (statvfs(path.c_str(), &vfs) != 0 || stat(path.c_str(), &st) != 0) {
        if (error) *error = errno;
        return std::nullopt;
    }
    const uint64_t unit = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
    FVVolumeSpace space;
    space.freeBytes = uint64_t(vfs.f_bavail) * unit;
    space.usedBytes = uint64_t(vfs.f_blocks - vfs.f_bfree) * unit;
    space.totalBytes = uint64_t(vfs.f_blocks) * unit;
    space.device = st.st_dev;
    return space;
}

uint64_t treeBytes(const std::string& path) {
    char* roots[] = {const_cast<char*>(path.c_str()), nullptr};
    FTS* fts = fts_open(roots, FTS_PHYSICAL | FTS_XDEV | FTS_NOCHDIR, nullptr);
    if (!fts) return 0;
    uint64_t bytes = 0;
    while (FTSENT* entry = fts_read(fts)) {
        // A folder counts once, on the way in.
        if (entry->fts_info == FTS_DP || !entry->fts_statp || entry->fts_info == FTS_NS ||
            entry->fts_info == FTS_ERR)
            continue;
        bytes += uint64_t(entry->fts_statp->st_blocks) * 512;
    }
    fts_close(fts);
    return bytes;
}

}  // namespace ferrovane::FVSpaceUsage
