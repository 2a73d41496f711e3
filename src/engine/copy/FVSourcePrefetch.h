#pragma once
// The sources of one run of small files, opened a few ahead of the copy and their reads started:
// on a cold cache the disk then has many reads at once instead of one file's at a time per copy
// thread. On a warm cache it costs one fadvise per file. At most kAhead descriptors are held.

#include "engine/copy/FVCopyPair.h"
#include "fs/FVFileDescriptor.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace ferrovane {

class FVSourcePrefetch {
public:
    // Opens a source for reading, as the copy would; -1 with errno when it cannot.
    using Opener = std::function<int(const std::string& sourcePath)>;

    // Starts on a run, which stays unchanged until clear: opens the first sources of the pairs
    // that copy a small regular file's data, and asks the kernel to read them in.
    void start(const std::vector<FVCopyPair>& run, Opener open);
    // The descriptor opened for this source, handed over once (those opened for pairs before it
    // are closed), and the next source opened; invalid when there is none (the copy then opens
    // the source itself and sees why it cannot).
    FVFd take(const std::string& sourcePath);
    // Closes what was not taken and forgets the run.
    void clear();

private:
    static constexpr size_t kAhead = 16;
    struct Opened {
        const FVFileSystemItem* source;
        FVFd fd;
    };
    void fill();

    const std::vector<FVCopyPair>* run_ = nullptr;
    Opener open_;
    size_t nextPair_ = 0;
    std::deque<Opened> opened_;  // in the run's order
};

}  // namespace ferrovane
