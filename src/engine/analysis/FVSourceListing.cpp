#include "engine/analysis/FVSourceListing.h"

#include "engine/analysis/FVSourceExclusions.h"
#include "fs/FVCacheDirectoryTag.h"
#include "fs/FVDirectoryWalker.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVFileStatus.h"
#include "fs/FVThreadWorkingFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ferrovane {

namespace {
// Entries per hand-over, and hand-overs the walk may run ahead of the analysis: enough to keep
// both threads busy, few enough that memory stays flat on trees of millions of entries.
constexpr size_t kBatchSize = 256;
constexpr size_t kBatchesAhead = 16;
}  // namespace

FVSourceListing::FVSourceListing(std::string sourceRoot, std::string targetRoot, Rules rules)
    : sourceRoot_(std::move(sourceRoot)), targetRoot_(std::move(targetRoot)), rules_(std::move(rules)) {
    thread_ = std::thread([this] { walk(); });
}

FVSourceListing::~FVSourceListing() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

bool FVSourceListing::next(std::vector<Entry>& batch) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !batches_.empty() || finished_; });
    if (batches_.empty()) return false;
    batch = std::move(batches_.front());
    batches_.pop_front();
    changed_.notify_all();
    return true;
}

void FVSourceListing::deliver(std::vector<Entry>& batch) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return batches_.size() < kBatchesAhead || stopping_; });
    batches_.push_back(std::move(batch));
    changed_.notify_all();
    batch.clear();
    batch.reserve(kBatchSize);
}

// Long, and kept as one loop: an entry's kind is the first test in this order that holds, and the
// state of the folders above it (cache folder, mirrored levels) carries from entry to entry.
void FVSourceListing::walk() {
    FVDirectoryWalker walker(sourceRoot_);
    std::vector<Entry> batch;
    batch.reserve(kBatchSize);
    // By level: whether the mirror holds the folder of that level, so that the entries in it
    // will be compared. Below a folder the mirror lacks, signatures would only be thrown away.
    std::vector<bool> mirrorHoldsFolder;
    FVThreadWorkingFolder workingFolder;
    // The folder last found tagged as a cache: what it holds, but its tag, is left out.
    std::string cacheFolder;
    const FVSourceExclusions* exclusions = rules_.exclusions && rules_.exclusions->any() ? rules_.exclusions : nullptr;
    auto leftOutByOptions = [&](const FVDirectoryWalker::Entry& found, const Entry& entry, bool isDirectory) {
        if (entry.level == 0) return false;
        if (!cacheFolder.empty() && entry.name() != FVCacheDirectoryTag::kName &&
            std::string_view(entry.path).substr(0, entry.nameOffset - 1) == cacheFolder)
            return true;
        return exclusions->matchesPattern(entry.relativePath().substr(1), isDirectory) ||
               exclusions->isNoDump(found.parentFd, found.nameCString());
    };
    while (const FVDirectoryWalker::Entry* found = walker.next()) {
        if (stopping_.load(std::memory_order_relaxed)) break;
        Entry entry;
        entry.path = found->path;
        entry.st = found->st;
        entry.level = static_cast<uint32_t>(found->level);
        entry.nameOffset = static_cast<uint32_t>(found->nameOffset);
        entry.relativeOffset = static_cast<uint32_t>(found->relativeOffset);
        entry.error = found->error;
        const mode_t type = found->st.st_mode & S_IFMT;
        if (found->error != 0) {
            entry.kind = Entry::Kind::Error;
        } else if (type != S_IFDIR && type != S_IFREG && type != S_IFLNK) {
            continue;  // sockets, FIFOs and devices are passed over
        } else if (rules_.isExcluded(entry.path) || (exclusions && leftOutByOptions(*found, entry, type == S_IFDIR))) {
            entry.kind = Entry::Kind::Excluded;
            if (type == S_IFDIR) walker.skipChildren();
        } else if (type == S_IFDIR && found->st.st_dev == rules_.destinationDevice &&
                   found->st.st_ino == rules_.destinationInode) {
            entry.kind = Entry::Kind::DestinationInside;
            walker.skipChildren();
        } else if (type == S_IFDIR && found->level > 0 &&
                   FVFileStatus::faccessat(found->parentFd, found->nameCString(), R_OK | X_OK, AT_EACCESS) != 0) {
            entry.kind = Entry::Kind::UnreadableFolder;
            entry.error = errno;
            walker.skipChildren();
        } else if (std::string why = entry.level > 0 && rules_.refusedName ? rules_.refusedName(entry.level, entry.name(), found->parentFd)
                                                                          : std::string();
                   !why.empty()) {
            entry.kind = Entry::Kind::Unmirrorable;
            entry.reason = std::move(why);
            if (type == S_IFDIR) walker.skipChildren();
        } else {
            const bool inMirroredFolder = entry.level == 0 || mirrorHoldsFolder[entry.level - 1];
            const bool readsSignature = rules_.signature && inMirroredFolder && entry.level > 0;
            // A current file's attributes come with its digest from the last record.
            const bool readsAttributes = rules_.attributes && type != S_IFREG && (inMirroredFolder || type == S_IFDIR);
            if (readsSignature || readsAttributes) {
                const bool inFolder = entry.level > 0 &&
                    workingFolder.moveTo(found->parentFd, std::string_view(entry.path).substr(0, entry.nameOffset));
                const std::string name = inFolder ? std::string(entry.name()) : entry.path;
                if (readsSignature) entry.signature = rules_.signature(name);
                if (readsAttributes) entry.attributes = rules_.attributes(name);
            }
            if (type == S_IFDIR && exclusions &&
                exclusions->isCacheFolder(entry.level == 0 ? AT_FDCWD : found->parentFd,
                                          entry.level == 0 ? entry.path.c_str() : found->nameCString()))
                cacheFolder = entry.path;
            if (type == S_IFDIR) {
                struct stat mirror {};
                mirrorHoldsFolder.resize(entry.level);
                mirrorHoldsFolder.push_back(inMirroredFolder &&
                                            FVLongPath::lstat(targetRoot_ + std::string(entry.relativePath()), &mirror) == 0 &&
                                            S_ISDIR(mirror.st_mode));
            }
        }
        batch.push_back(std::move(entry));
        if (batch.size() == kBatchSize) deliver(batch);
    }
    if (!batch.empty() && !stopping_) deliver(batch);
    std::lock_guard lock(mutex_);
    finished_ = true;
    changed_.notify_all();
}

}  // namespace ferrovane
