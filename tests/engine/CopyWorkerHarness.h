#pragma once
// A delegate that records what a copy worker tells it, and a helper that feeds a whole tree
// through a worker the way the analysis does (folders before their contents).

#include "engine/copy/FVFileCopyWorker.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ferrovane::test {

class RecordingDelegate : public FVFileCopyWorkerDelegate {
public:
    bool answersWillOverwrite = true;
    bool answersProgress = true;

    bool respondsToWillOverwriteDestination() const override { return answersWillOverwrite; }
    bool respondsToProgressDidChange() const override { return answersProgress; }
    bool copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) override {
        std::lock_guard lock(mutex_);
        overwritten_.push_back(destination.path());
        return true;
    }
    void copyWorkerProgressDidChange(float fraction) override {
        std::lock_guard lock(mutex_);
        progress_.push_back(fraction);
    }
    void copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) override {
        static constexpr const char* kNames[] = {"INFO", "WARNING", "ERROR"};
        std::lock_guard lock(mutex_);
        messages_.push_back(kNames[static_cast<int>(level)] + (" " + message));
    }
    void copyWorkerDidFinishCopy() override { end(finished_); }
    void copyWorkerDidCancel() override { end(cancelled_); }

    // Waits until the worker reported its end (finish or cancel).
    bool waitForEnd(std::chrono::seconds timeout = std::chrono::seconds(60)) {
        std::unique_lock lock(mutex_);
        return ended_.wait_for(lock, timeout, [&] { return finished_ + cancelled_ > 0; });
    }
    int finished() { std::lock_guard lock(mutex_); return finished_; }
    int cancelled() { std::lock_guard lock(mutex_); return cancelled_; }
    std::vector<std::string> messages() { std::lock_guard lock(mutex_); return messages_; }
    std::vector<std::string> messagesAt(const std::string& level) {
        std::vector<std::string> out;
        for (const std::string& m : messages())
            if (m.starts_with(level + " ")) out.push_back(m.substr(level.size() + 1));
        return out;
    }
    std::vector<float> progress() { std::lock_guard lock(mutex_); return progress_; }
    std::vector<std::string> overwritten() { std::lock_guard lock(mutex_); return overwritten_; }

private:
    void end(int& counter) {
        std::lock_guard lock(mutex_);
        ++counter;
        ended_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable ended_;
    std::vector<std::string> messages_, overwritten_;
    std::vector<float> progress_;
    int finished_ = 0, cancelled_ = 0;
};

inline void addPair(FVFileCopyWorker& worker, const std::string& source, const std::string& destination) {
    worker.addCopyItemFromSource(FVFileSystemItem::itemWithPath(source), FVFileSystemItem::itemWithPath(destination));
}

// One session through a new worker over the (source, destination) pairs in the order given;
// configure runs before the session starts. Waits for the worker's end.
inline void copyPairs(const std::string& destinationRoot, const std::vector<std::pair<std::string, std::string>>& pairs,
                      RecordingDelegate& delegate, const std::function<void(FVFileCopyWorker&)>& configure = {}) {
    FVFileCopyWorker worker;
    worker.setDelegate(&delegate);
    worker.setDestinationRoot(destinationRoot);
    if (configure) configure(worker);
    worker.startCopySession();
    for (const auto& [source, destination] : pairs) addPair(worker, source, destination);
    worker.endCopySession();
    delegate.waitForEnd();
}

// Copies the tree below source into destination (the root folder itself included), folders
// before their contents as the analysis adds them.
inline void copyTree(const std::string& source, const std::string& destination, RecordingDelegate& delegate,
                     const std::function<void(FVFileCopyWorker&)>& configure = {}) {
    std::vector<std::pair<std::string, std::string>> pairs{{source, destination}};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(source)) {
        std::string path = entry.path().string();
        pairs.emplace_back(path, destination + path.substr(source.size()));
    }
    copyPairs(destination, pairs, delegate, configure);
}

// What a run left below root under a temporary name.
inline std::vector<std::string> temporaryLeftovers(const std::string& root) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        if (entry.path().filename().string().starts_with(kTemporaryFilePrefix)) found.push_back(entry.path());
    return found;
}

}  // namespace ferrovane::test
