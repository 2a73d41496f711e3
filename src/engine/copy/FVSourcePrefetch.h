#pragma once
// The sources of one run of small files, opened together before the first is copied and their
// reads started: on a cold cache the disk then has a whole run's reads at once instead of one
// file's at a time per copy thread. On a warm cache it costs one fadvise per file.

#include "engine/copy/FVCopyPair.h"
#include "fs/FVFileDescriptor.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace ferrovane {

class FVSourcePrefetch {
public:
    // Opens a source for reading, as the copy would; -1 with errno when it cannot.
    using Opener = std::function<int(const std::string& sourcePath)>;

    // Opens the source of every pair of the run that copies a small regular file's data, and
    // asks the kernel to read it in. Whatever was not taken from an earlier run is closed.
    void start(const std::vector<FVCopyPair>& run, const Opener& open);
    // The descriptor opened for this source, handed over once; invalid when there is none (the
    // copy then opens the source itself and sees why it cannot).
    FVFd take(const std::string& sourcePath);
    // Closes what was not taken.
    void clear();

private:
    struct Opened {
        FVFileSystemItemPtr source;
        FVFd fd;
    };
    std::vector<Opened> opened_;
    size_t next_ = 0;  // the copies take them in order
};

}  // namespace ferrovane
