#pragma once
// A delegate that records what a copy worker tells it, and a helper that feeds a whole tree
// through a worker the way the analysis does (folders before their contents).

#include "engine/FVFileCopyWorker.h"

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
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

// Copies the tree below source into destination (the root folder itself included) through a new
// worker and waits for its end. configure runs before the session starts.
inline void copyTree(const std::string& source, const std::string& destination, RecordingDelegate& delegate,
                     const std::function<void(FVFileCopyWorker&)>& configure = {}) {
    FVFileCopyWorker worker;
    worker.setDelegate(&delegate);
    worker.setDestinationRoot(destination);
    if (configure) configure(worker);
    worker.startCopySession();
    addPair(worker, source, destination);
    namespace fs = std::filesystem;
    for (const auto& entry : fs::recursive_directory_iterator(source)) {
        std::string path = entry.path().string();
        addPair(worker, path, destination + path.substr(source.size()));
    }
    worker.endCopySession();
    delegate.waitForEnd();
}

}  // namespace ferrovane::test
