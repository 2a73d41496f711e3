#pragma once
// What one copying thread keeps between items: consecutive pairs mostly share their folders.

#include "engine/copy/FVNewFileProfile.h"
#include "engine/copy/FVSourcePrefetch.h"
#include "fs/FVFileDescriptor.h"

#include <fcntl.h>

#include <memory>
#include <string>

namespace ferrovane {

struct FVCopyThreadState {
    std::unique_ptr<char[]> buffer;
    std::string lastDirectory;  // the folder last ensured, and its descriptor (invalid when
    FVFd lastDirectoryFd;       // it could not be reached)
    int lastDirectoryError = 0;
    FVNewFileProfile newFiles;  // what a file made in lastDirectory starts with
    std::string sourceFolder;  // the source folder last read from, relative to the source root,
    FVFd sourceFolderFd;       // and its descriptor, reached from the root without following links
    FVSourcePrefetch prefetch;  // sources of the run in hand, opened ahead of their copies
};

// How a source file is opened for its copy.
inline constexpr int kSourceFileFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;

}  // namespace ferrovane
