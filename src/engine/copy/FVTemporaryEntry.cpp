#include "engine/copy/FVTemporaryEntry.h"

#include "engine/run/FVRunError.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFileSystemFlush.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVRemovals.h"
#include "fs/FVRenames.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <random>

namespace ferrovane {

FVTemporaryEntry::~FVTemporaryEntry() {
    if (published_ || name_.empty()) return;
    int saved = errno;
    FVRemovals::unlinkat(dirFd_, name_.c_str(), 0);
    errno = saved;
}

std::string FVTemporaryEntry::randomName() {
    thread_local std::mt19937_64 random{std::random_device{}()};
    return fmt::format("{}{:016x}", kTemporaryFilePrefix, random());
}

bool FVTemporaryEntry::publishAsNew(int toDirFd, const std::string& name) {
    const int error = FVConfinedDirectory::renameWithoutReplacing(dirFd_, name_.c_str(), toDirFd, name.c_str());
    published_ = error == 0;
    errno = error;
    return published_;
}

bool FVTemporaryEntry::replaceIn(int toDirFd, const char* name) {
    published_ = FVRenames::renameat(dirFd_, name_.c_str(), toDirFd, name) == 0;
    return published_;
}

FVTemporaryEntry::Published FVTemporaryEntry::publish(const std::string& name, int dataFd) {
    if (FVRenames::renameat2(dirFd_, name_.c_str(), dirFd_, name.c_str(), RENAME_NOREPLACE) == 0) {
        published_ = true;
        return Published::Done;
    }
    // A failing, full or read-only disk is not worked around: the caller ends the run.
    if (FVRunError::isFatal(errno)) return Published::CouldNotReplace;
    // Something is in the way, the file system has no RENAME_NOREPLACE, or the folder is locked.
    struct stat st {};
    bool exists = FVFileStatus::fstatat(dirFd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && dataFd >= 0 && FVFileSystemFlush::fsync(dataFd) != 0) return Published::DataNotSafe;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (exists && S_ISDIR(st.st_mode)) FVConfinedDirectory::removeRecursivelyAt(dirFd_, name);
        if (FVRenames::renameat(dirFd_, name_.c_str(), dirFd_, name.c_str()) == 0) {
            published_ = true;
            return Published::Done;
        }
        if (attempt == 0) {
            int saved = errno;
            FVInodeFlags::unlockFileAt(dirFd_, name);
            FVInodeFlags::unlockFileAt(dirFd_, "");
            exists = FVFileStatus::fstatat(dirFd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
            errno = saved;
        }
    }
    return Published::CouldNotReplace;
}

}  // namespace ferrovane
