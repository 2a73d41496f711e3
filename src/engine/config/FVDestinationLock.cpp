#include "engine/config/FVDestinationLock.h"

#include "fs/FVFileLocks.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace ferrovane {

namespace {
constexpr auto kRetryPause = std::chrono::milliseconds(100);
}

std::string FVDestinationLock::busyMessage(const std::string& destination) {
    return "Another Ferrovane run is using this destination: " + destination + ". Try again when it has finished.";
}

FVDestinationLock::Status FVDestinationLock::acquire(const std::string& destination, Mode mode) {
    return acquire(destination, std::chrono::milliseconds(0), mode);
}

FVDestinationLock::Status FVDestinationLock::acquire(const std::string& destination,
                                                     std::chrono::milliseconds wait, Mode mode) {
    release();
    reason_.clear();
    FVFd fd(FVOpenFiles::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) {
        reason_ = "cannot open " + destination + ": " + std::strerror(errno);
        return errno == ENOENT || errno == ENOTDIR ? Status::Missing : Status::Failed;
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
        if (FVFileLocks::flock(fd.get(), (mode == Mode::Shared ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0) {
            fd_ = std::move(fd);
            return Status::Acquired;
        }
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) {
            reason_ = "cannot lock " + destination + ": " + std::strerror(errno);
            return Status::Failed;
        }
        if (std::chrono::steady_clock::now() >= deadline) return Status::Busy;
        std::this_thread::sleep_for(kRetryPause);
    }
}

}  // namespace ferrovane
