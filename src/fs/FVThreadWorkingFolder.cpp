#include "fs/FVThreadWorkingFolder.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace ferrovane {

FVThreadWorkingFolder::FVThreadWorkingFolder() {
    previous_.reset(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    usable_ = previous_.valid() && unshare(CLONE_FS) == 0;
}

FVThreadWorkingFolder::~FVThreadWorkingFolder() {
    if (!usable_ || !inside_) return;
    // The thread's own working folder: nothing else depends on it, so a failure is let be.
    int ignored = fchdir(previous_.get());
    (void)ignored;
}

bool FVThreadWorkingFolder::moveTo(int fd, std::string_view key) {
    if (!usable_ || fd < 0) return false;
    if (inside_ && key == key_) return true;
    inside_ = fchdir(fd) == 0;
    if (inside_) key_.assign(key);
    else key_.clear();
    return inside_;
}

}  // namespace ferrovane
