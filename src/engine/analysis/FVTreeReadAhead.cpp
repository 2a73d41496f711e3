#include "engine/analysis/FVTreeReadAhead.h"

#include "fs/FVDirectoryWalker.h"
#include "fs/FVFileStatus.h"

#include <sys/stat.h>

#include <iterator>

namespace ferrovane {

namespace {

// Reads in flight at once; they wait on the disk, not on a core.
constexpr unsigned kReaders = 8;

}  // namespace

FVTreeReadAhead::FVTreeReadAhead(const std::vector<std::string>& roots) {
    for (auto root = roots.rbegin(); root != roots.rend(); ++root) {
        struct stat st {};
        if (FVFileStatus::lstat(root->c_str(), &st) == 0 && S_ISDIR(st.st_mode)) waiting_.emplace_back(*root, st.st_dev);
    }
    if (waiting_.empty()) return;
    for (unsigned i = 0; i < kReaders; ++i) threads_.emplace_back([this] { work(); });
}

FVTreeReadAhead::~FVTreeReadAhead() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_.store(true, std::memory_order_relaxed);
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

// What a read finds is of no interest beyond its folders, nor whether it fails: the walk that
// follows reads it again.
void FVTreeReadAhead::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stop_.load(std::memory_order_relaxed) || !waiting_.empty() || reading_ == 0; });
        if (stop_.load(std::memory_order_relaxed) || waiting_.empty()) return;
        Folder folder = std::move(waiting_.back());
        waiting_.pop_back();
        ++reading_;
        lock.unlock();
        std::vector<Folder> found = read(folder);
        lock.lock();
        --reading_;
        waiting_.insert(waiting_.end(), std::make_move_iterator(found.rbegin()), std::make_move_iterator(found.rend()));
        changed_.notify_all();
    }
}

std::vector<FVTreeReadAhead::Folder> FVTreeReadAhead::read(const Folder& folder) const {
    std::vector<Folder> found;
    FVDirectoryWalker walker(folder.first);
    while (!stop_.load(std::memory_order_relaxed)) {
        const FVDirectoryWalker::Entry* entry = walker.next();
        if (!entry) break;
        if (entry->level == 0 || !entry->isDirectory()) continue;
        walker.skipChildren();
        if (entry->st.st_dev == folder.second) found.emplace_back(entry->path, folder.second);
    }
    return found;
}

}  // namespace ferrovane
