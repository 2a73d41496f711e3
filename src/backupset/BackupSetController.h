#pragma once
// The source list model: the ordered items of one destination, the two path lists a run needs,
// and a background measurement of the backed-up items' sizes with a one-line summary.
//
// Threads: every public call belongs to the front end's main thread; the measurement runs on a
// private worker thread. Both share the list under one lock, and the worker changes items only
// while holding it, so that a stale mark set by the main thread is never overwritten by a result.

#include "engine/config/FVSourceItem.h"
#include "engine/run/FVMainQueue.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ferrovane {

enum class BackupSetChange {
    List,   // items were added, removed, moved or changed mode
    Sizes,  // a measured size or the summary line changed
};

class BackupSetController {
public:
    // mainQueue receives the change notifications of the measurement; without one they are
    // delivered on the worker thread.
    explicit BackupSetController(FVMainQueue* mainQueue = nullptr);
    ~BackupSetController();
    BackupSetController(const BackupSetController&) = delete;
    BackupSetController& operator=(const BackupSetController&) = delete;

    // List changes are reported synchronously on the calling thread; size changes through the
    // main queue. The handler must not call back into the controller's mutating methods.
    void setChangeHandler(std::function<void(BackupSetChange)> handler);

    bool disableSizeEvaluation() const { return disableSizeEvaluation_.load(std::memory_order_relaxed); }
    void setDisableSizeEvaluation(bool disable) { disableSizeEvaluation_.store(disable, std::memory_order_relaxed); }

    // Loading a stored list: the same shared items are appended (no duplicate check), each gets
    // its display name; an exclusion among them makes every size stale.
    void addBackupItem(const FVSourceItemPtr& item);
    void addBackupItems(const std::vector<FVSourceItemPtr>& items);
    // Returns false and adds nothing when an item with this path is already in the list.
    bool addBackupPath(const std::string& path, FVSourceMode mode, size_t index);
    // Adds every path in mode Backup at index, keeping their order; returns how many were new.
    size_t addBackupPaths(const std::vector<std::string>& paths, size_t index);

    // The remove action: the items' own sizes become stale (so that a measurement under way is
    // thrown away), and all sizes when an exclusion was among them.
    void removeItems(const std::vector<FVSourceItemPtr>& items);
    void removeItemsAtIndexes(const std::vector<size_t>& indexes);
    // A plain removal of everything, as before loading another destination.
    void removeAllItems();

    // Moves the items at indexes (any order, duplicates ignored) to toIndex, keeping their
    // relative order. Returns the index at which the first moved item now stands.
    size_t moveObjectsInArrangedObjectsFromIndexes(const std::vector<size_t>& indexes, size_t toIndex);

    // After the mode of an item was changed in place: every size becomes stale.
    void evaluateItemModeChange();
    void cancelSizeEvaluation();
    // After a write of the configuration, which keeps no measured size: the items without one
    // are measured again, the list itself unchanged.
    void measureMissingSizes();

    std::vector<FVSourceItemPtr> arrangedObjects() const;
    size_t count() const;
    std::vector<std::string> backupSetPaths() const;
    std::vector<std::string> excludePaths() const;
    std::string totalSizeString() const;

    // The size of one path in MB (10^6 bytes): regular files only, symbolic links not followed,
    // never crossing into another mount. -1.0 when abandoned: isCancelled() turned true, item
    // (if given) went stale, or isRemoved() turned true.
    static double sizeOfPathInMB(const std::string& path, const std::vector<std::string>* excludePaths,
                                 const FVSourceItemPtr& item, const std::function<bool()>& isCancelled,
                                 const std::function<bool()>& isRemoved);

private:
    struct Notifier;

    void updateDynamicData();
    void requestMeasurement();
    void invalidateAllSizesLocked();
    void notifyListChange();
    void startWorkerIfNeeded();
    void workerLoop();
    void measure(uint64_t generation);
    bool isCancelled(uint64_t generation) const;
    void updateTotalSizeString();
    void postSizeChange();

    FVMainQueue* mainQueue_;
    std::shared_ptr<Notifier> notifier_;
    std::atomic<bool> disableSizeEvaluation_{false};

    // Guards items_, the derived lists and the summary line.
    mutable std::mutex mutex_;
    std::vector<FVSourceItemPtr> items_;
    std::vector<std::string> backupSetPaths_;
    std::vector<std::string> excludePaths_;
    std::string totalSizeString_;
    // Counts stale marks, so that a result measured before one is never stored after it.
    uint64_t invalidations_ = 0;
    // Bumped by every removal, so that a walk re-checks membership only when it may have changed.
    std::atomic<uint64_t> removals_{0};

    // The measurement worker: each request supersedes the one before it.
    std::mutex workerMutex_;
    std::condition_variable workerWake_;
    std::thread worker_;
    std::atomic<uint64_t> requested_{0};
    std::atomic<uint64_t> cancelledThrough_{0};
    std::atomic<bool> stopping_{false};
};

}  // namespace ferrovane
