#pragma once
// Calls on extended attributes take no folder descriptor (before Linux 6.13), so each would walk
// the whole path from the root. A thread that stops sharing its working folder with the rest of
// the process can instead move into each folder it examines and name the entries there; the
// folder is entered through a descriptor, so no symbolic link on the way is followed.

#include <string>
#include <string_view>

#include "fs/FVFileDescriptor.h"

namespace ferrovane {

class FVThreadWorkingFolder {
public:
    // Unshares the calling thread's working folder; without that, moveTo always refuses.
    FVThreadWorkingFolder();
    // Returns the thread to the folder it was in.
    ~FVThreadWorkingFolder();
    FVThreadWorkingFolder(const FVThreadWorkingFolder&) = delete;
    FVThreadWorkingFolder& operator=(const FVThreadWorkingFolder&) = delete;

    // Makes the folder open as fd, known as key, the working folder; true when names may now be
    // given relative to it. Moving to the key already in use costs nothing.
    bool moveTo(int fd, std::string_view key);

private:
    FVFd previous_;
    bool usable_ = false;
    std::string key_;
    bool inside_ = false;
};

}  // namespace ferrovane
