#include "cli/FVSharedLock.h"

#include "cli/FVOutput.h"
#include "search/FVSearchText.h"

namespace ferrovane::FVSharedLock {

bool acquire(const char* command, const std::string& destination, FVDestinationLock& lock, int* status) {
    switch (lock.acquire(destination, FVDestinationLock::Mode::Shared)) {
    case FVDestinationLock::Status::Busy:
        FVOutput::error("{}", FVSearchText::printable(FVDestinationLock::busyMessage(destination)));
        *status = FVDestinationLock::busyExitStatus;
        return false;
    case FVDestinationLock::Status::Failed:
        FVOutput::error("cannot make sure that no run uses the destination ({}).", FVSearchText::printable(lock.reason()));
        *status = 1;
        return false;
    case FVDestinationLock::Status::Acquired:
    case FVDestinationLock::Status::Missing:
        break;
    }
    return true;
}

}  // namespace ferrovane::FVSharedLock
