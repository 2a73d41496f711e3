#pragma once
// One run at a time per destination: an exclusive flock on a descriptor of the destination's
// root folder itself. Restores take it shared: several may read the destination at once, but
// never while a run or a configuration change holds it, and none of those starts beside them. Nothing is written into the destination for it, and the kernel drops the
// lock when the holder's process ends, so a crash never leaves a stale lock behind.
//
// flock belongs to the open file description: a second lock in the same process conflicts with
// the first just as one in another process does.

#include "fs/FVFileDescriptor.h"

#include <chrono>
#include <string>

namespace ferrovane {

class FVDestinationLock {
public:
    enum class Status {
        Acquired,
        Busy,         // another holder has it
        Missing,      // the destination is not an existing folder
        Failed,       // the folder could not be opened or locked; reason() says why
    };

    enum class Mode { Exclusive, Shared };

    // The exit status of a run or a configuration change refused because the destination is busy
    // (EX_TEMPFAIL: try again later).
    static constexpr int busyExitStatus = 75;

    FVDestinationLock() = default;

    // Tries once.
    Status acquire(const std::string& destination, Mode mode = Mode::Exclusive);
    // Tries until the lock is free or wait has passed.
    Status acquire(const std::string& destination, std::chrono::milliseconds wait, Mode mode = Mode::Exclusive);

    bool held() const { return fd_.valid(); }
    void release() { fd_.reset(); }
    const std::string& reason() const { return reason_; }

    // The one line shown when the destination is busy.
    static std::string busyMessage(const std::string& destination);

private:
    FVFd fd_;
    std::string reason_;
};

}  // namespace ferrovane
