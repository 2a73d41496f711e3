#include "engine/copy/FVSourcePrefetch.h"

#include "fs/FVFileData.h"

namespace ferrovane {

namespace {
// A larger file is read ahead by the kernel as its copy goes; a hint for the whole of it would
// read it in before the copy begins.
constexpr uint64_t kLargestPrefetched = 1 << 20;
}  // namespace

void FVSourcePrefetch::start(const std::vector<FVCopyPair>& run, const Opener& open) {
    clear();
    for (const FVCopyPair& pair : run) {
        if (pair.digestOnly || pair.modeAndOwnerOnly || pair.source->fileType() != FVFileType::Regular ||
            pair.source->fileSize() > kLargestPrefetched)
            continue;
        FVFd fd(open(pair.source->path()));
        if (!fd.valid()) continue;
        // Reads nothing itself, so the source's access time stays what the copy takes over.
        FVFileData::adviseWillNeed(fd.get());
        opened_.push_back({pair.source, std::move(fd)});
    }
}

FVFd FVSourcePrefetch::take(const std::string& sourcePath) {
    for (size_t i = next_; i < opened_.size(); ++i) {
        if (opened_[i].source->path() != sourcePath) continue;
        next_ = i + 1;
        return std::move(opened_[i].fd);
    }
    return FVFd();
}

void FVSourcePrefetch::clear() {
    opened_.clear();
    next_ = 0;
}

}  // namespace ferrovane
