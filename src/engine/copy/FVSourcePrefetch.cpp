#include "engine/copy/FVSourcePrefetch.h"

#include "fs/FVFileData.h"

namespace ferrovane {

namespace {
// A larger file is read ahead by the kernel as its copy goes; a hint for the whole of it would
// read it in before the copy begins.
constexpr uint64_t kLargestPrefetched = 1 << 20;
}  // namespace

void FVSourcePrefetch::start(const std::vector<FVCopyPair>& run, Opener open) {
    clear();
    run_ = &run;
    open_ = std::move(open);
    fill();
}

void FVSourcePrefetch::fill() {
    while (run_ && opened_.size() < kAhead && nextPair_ < run_->size()) {
        const FVCopyPair& pair = (*run_)[nextPair_++];
        if (pair.digestOnly || pair.modeAndOwnerOnly || pair.source->fileType() != FVFileType::Regular ||
            pair.source->fileSize() > kLargestPrefetched)
            continue;
        FVFd fd(open_(pair.source->path()));
        if (!fd.valid()) continue;
        // Reads nothing itself, so the source's access time stays what the copy takes over.
        FVFileData::adviseWillNeed(fd.get());
        opened_.push_back({pair.source.get(), std::move(fd)});
    }
}

FVFd FVSourcePrefetch::take(const std::string& sourcePath) {
    for (size_t i = 0; i < opened_.size(); ++i) {
        if (opened_[i].source->path() != sourcePath) continue;
        FVFd fd = std::move(opened_[i].fd);
        opened_.erase(opened_.begin(), opened_.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        fill();
        return fd;
    }
    return FVFd();
}

void FVSourcePrefetch::clear() {
    opened_.clear();
    run_ = nullptr;
    open_ = nullptr;
    nextPair_ = 0;
}

}  // namespace ferrovane
