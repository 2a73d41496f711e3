#pragma once
// Restores a file or a folder exactly as one complete run recorded it, following a plan: folders,
// links and files with the owner, group, mode, attributes and times of the record, each file's
// bytes taken from wherever they are now and checked against the recorded digest while they are
// copied. Each new item is made under a temporary name and given its name last, never over an
// item that is there: an existing item is replaced only when the plan found it in the way and the
// user chose to replace it, and it then goes to the trash first. A file whose bytes the destination
// no longer holds is named, never skipped silently. The manifest is streamed, not held: the thread
// that runs reads it, makes folders and links and hands files to two copiers (creating small files
// is bound by kernel time per file, so two copiers restore about twice as fast as one).

#include "engine/restore/FVPointInTimePlan.h"
#include "fs/FVConfinedDirectory.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ferrovane {

class FVPointInTimeRestore {
public:
    struct Summary {
        uint64_t files = 0;     // files and links restored
        uint64_t bytes = 0;
        uint64_t replaced = 0;  // existing items moved aside first
        uint64_t gone = 0;      // files whose bytes no copy in the destination holds
        uint64_t errors = 0;    // gone files included
        bool cancelled = false;
    };
    // Called on the thread that runs, with recorded entries handled so far and in all.
    using Progress = std::function<void(uint64_t done, uint64_t total)>;
    // Messages for the user (replaced items, errors, files whose bytes are gone), on any thread,
    // one at a time.
    using Report = std::function<void(const std::string& line, bool isError)>;

    FVPointInTimeRestore(const FVPointInTimePlan& plan, bool replace);
    ~FVPointInTimeRestore();

    // Runs the plan; interrupt is polled (between entries and between chunks of a file) and
    // cancels the restore when it becomes true. Writes a section in the run log.
    Summary run(const Progress& progress, const Report& report, const std::atomic<bool>& interrupt);
    Summary run(const Progress& progress, const Report& report);
    // Cancels from any thread (a signal's), as interrupt does.
    void cancel() { cancelRequested_.store(true, std::memory_order_relaxed); }
    // Test hook: called with each file's target before its bytes are copied, on a copier's thread.
    void setBeforeFile(std::function<void(const std::string&)> hook) { beforeFile_ = std::move(hook); }

private:
    struct Lane;
    struct FileJob {
        FVManifestEntry entry;
        std::string target, relative;
    };

    void restoreEntry(const FVManifestEntry& entry, Lane& lane);
    void restoreFile(const FileJob& job, Lane& lane);
    void restoreLink(const FVManifestEntry& entry, const std::string& target, int parent, const std::string& name);
    bool linkToGroup(const FileJob& job, int parent, const std::string& name);
    bool moveAside(const std::string& target, Lane& lane);
    void copyFiles();
    void enqueue(FileJob job);
    void drain();
    void finishFolders();
    bool stopped() const;
    void tell(const std::string& line, bool isError);

    const FVPointInTimePlan& plan_;
    bool replace_;
    std::function<void(const std::string&)> beforeFile_;
    const std::atomic<bool>* interrupt_ = nullptr;
    std::atomic<bool> cancelRequested_{false};
    Report report_;
    std::unique_ptr<FVConfinedDirectory> source_, target_;
    std::unordered_set<std::string> conflicts_;
    // Folders get their recorded metadata once their contents are in (a new file changes its
    // folder's time): relative target, entry.
    std::vector<std::pair<std::string, FVManifestEntry>> folders_;
    // The first restored file of each hard-link group, as its relative target; hard-linked files
    // are restored on the thread that runs, in the record's order.
    std::unordered_map<uint64_t, std::string> linkGroups_;

    std::mutex queueMutex_;
    std::condition_variable queueChanged_;
    std::deque<FileJob> queue_;
    size_t busy_ = 0;
    bool closed_ = false;

    std::mutex summaryMutex_;
    Summary summary_;
};

}  // namespace ferrovane
