#include "backupset/BackupSetController.h"

#include "engine/analysis/FVExclusionRules.h"
#include "engine/run/FVStrings.h"
#include "fs/FVFileStatus.h"
#include "fs/FVText.h"

#include <fts.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

namespace ferrovane {

namespace {

constexpr auto kMeasurementPause = std::chrono::milliseconds(200);
constexpr double kStale = -1.0;

bool isStale(const FVSourceItem& item) {
    auto size = item.value(FVSourceKey::sizeInMB);
    return size && size->integerValue() == -1;
}

bool hasKnownSize(const FVSourceItem& item) {
    auto size = item.value(FVSourceKey::sizeInMB);
    return size && size->integerValue() != -1;
}

void setDisplayName(FVSourceItem& item) {
    item.setValue(FVSourceKey::sourcePathComponent, FVText::lastPathComponent(item.sourcePath()));
}

bool excluded(const std::string& path, const std::vector<std::string>* excludePaths) {
    return excludePaths && FVExclusionRules::fileShouldBeExcluded(path, *excludePaths, nullptr);
}

}  // namespace

// The change handler, shared with work posted to the main queue so that such work finds no
// handler (rather than a destroyed controller) once the controller is gone.
struct BackupSetController::Notifier {
    std::mutex mutex;
    std::function<void(BackupSetChange)> handler;

    void fire(BackupSetChange change) {
        std::function<void(BackupSetChange)> current;
        {
            std::lock_guard lock(mutex);
            current = handler;
        }
        if (current) current(change);
    }
};

BackupSetController::BackupSetController(FVMainQueue* mainQueue)
    : mainQueue_(mainQueue), notifier_(std::make_shared<Notifier>()) {}

BackupSetController::~BackupSetController() {
    {
        std::lock_guard lock(notifier_->mutex);
        notifier_->handler = nullptr;
    }
    {
        std::lock_guard lock(workerMutex_);
        stopping_.store(true);
    }
    workerWake_.notify_all();
    if (worker_.joinable()) worker_.join();
}

void BackupSetController::setChangeHandler(std::function<void(BackupSetChange)> handler) {
    std::lock_guard lock(notifier_->mutex);
    notifier_->handler = std::move(handler);
}

void BackupSetController::notifyListChange() { notifier_->fire(BackupSetChange::List); }

void BackupSetController::invalidateAllSizesLocked() {
    ++invalidations_;
    for (const FVSourceItemPtr& item : items_) item->setValue(FVSourceKey::sizeInMB, kStale);
}

void BackupSetController::addBackupItem(const FVSourceItemPtr& item) { addBackupItems({item}); }

void BackupSetController::addBackupItems(const std::vector<FVSourceItemPtr>& items) {
    {
        std::lock_guard lock(mutex_);
        bool exclusion = false;
        for (const FVSourceItemPtr& item : items) {
            setDisplayName(*item);
            exclusion = exclusion || item->mode() >= FVSourceMode::ExcludePath;
        }
        items_.insert(items_.end(), items.begin(), items.end());
        if (exclusion) invalidateAllSizesLocked();
    }
    updateDynamicData();
}

bool BackupSetController::addBackupPath(const std::string& path, FVSourceMode mode, size_t index) {
    bool added = false;
    {
        std::lock_guard lock(mutex_);
        bool duplicate = std::any_of(items_.begin(), items_.end(),
                                     [&](const FVSourceItemPtr& item) { return item->sourcePath() == path; });
        if (!duplicate) {
            if (static_cast<int64_t>(mode) >= 2) invalidateAllSizesLocked();
            FVSourceItemPtr item = FVSourceItem::make(path, mode);
            setDisplayName(*item);
            items_.insert(items_.begin() + static_cast<ptrdiff_t>(std::min(index, items_.size())), item);
            added = true;
        }
    }
    updateDynamicData();
    return added;
}

size_t BackupSetController::addBackupPaths(const std::vector<std::string>& paths, size_t index) {
    size_t added = 0;
    // Last to first, each at the same index: the paths end up in their given order.
    for (auto it = paths.rbegin(); it != paths.rend(); ++it)
        if (addBackupPath(*it, FVSourceMode::Backup, index)) ++added;
    return added;
}

void BackupSetController::removeItems(const std::vector<FVSourceItemPtr>& items) {
    {
        std::lock_guard lock(mutex_);
        bool exclusion = false;
        for (const FVSourceItemPtr& item : items) {
            auto found = std::find(items_.begin(), items_.end(), item);
            if (found == items_.end()) continue;
            items_.erase(found);
            item->setValue(FVSourceKey::sizeInMB, kStale);
            ++invalidations_;
            exclusion = exclusion || item->mode() >= FVSourceMode::ExcludePath;
        }
        if (exclusion) invalidateAllSizesLocked();
        removals_.fetch_add(1);
    }
    updateDynamicData();
}

void BackupSetController::removeItemsAtIndexes(const std::vector<size_t>& indexes) {
    std::vector<FVSourceItemPtr> selected;
    {
        std::lock_guard lock(mutex_);
        for (size_t index : indexes)
            if (index < items_.size()) selected.push_back(items_[index]);
    }
    removeItems(selected);
}

void BackupSetController::removeAllItems() {
    {
        std::lock_guard lock(mutex_);
        items_.clear();
        removals_.fetch_add(1);
    }
    updateDynamicData();
}

size_t BackupSetController::moveObjectsInArrangedObjectsFromIndexes(const std::vector<size_t>& indexes,
                                                                    size_t toIndex) {
    std::vector<size_t> sorted = indexes;
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    size_t firstMoved = 0;
    {
        std::lock_guard lock(mutex_);
        sorted.erase(std::remove_if(sorted.begin(), sorted.end(), [&](size_t i) { return i >= items_.size(); }),
                     sorted.end());
        size_t insertIndex = std::min(toIndex, items_.size());
        size_t aboveCount = 0;
        size_t below = 0;
        // Highest index first; each taken item goes to insertIndex, in front of those moved before.
        for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) {
            size_t from = *it;
            if (from >= insertIndex) {
                from += aboveCount;
                ++aboveCount;
            } else {
                --insertIndex;
                ++below;
            }
            FVSourceItemPtr item = items_[from];
            items_.erase(items_.begin() + static_cast<ptrdiff_t>(from));
            items_.insert(items_.begin() + static_cast<ptrdiff_t>(insertIndex), item);
        }
        firstMoved = std::min(toIndex, items_.size()) - below;
    }
    updateDynamicData();
    return firstMoved;
}

void BackupSetController::evaluateItemModeChange() {
    {
        std::lock_guard lock(mutex_);
        invalidateAllSizesLocked();
    }
    updateDynamicData();
}

void BackupSetController::updateDynamicData() {
    {
        std::lock_guard lock(mutex_);
        std::vector<std::string> backup;
        std::vector<std::string> exclude;
        for (const FVSourceItemPtr& item : items_) {
            const FVSourceMode mode = item->mode();
            if (mode < FVSourceMode::ExcludePath) backup.push_back(item->sourcePath());
            else if (mode == FVSourceMode::ExcludePath) exclude.push_back(item->sourcePath());
            else if (mode == FVSourceMode::ExcludeName) exclude.push_back(FVText::lastPathComponent(item->sourcePath()));
        }
        backupSetPaths_ = std::move(backup);
        excludePaths_ = std::move(exclude);
    }
    requestMeasurement();
    notifyListChange();
}

void BackupSetController::measureMissingSizes() {
    if (disableSizeEvaluation()) return;
    updateTotalSizeString();
    requestMeasurement();
}

void BackupSetController::requestMeasurement() {
    if (disableSizeEvaluation()) return;
    startWorkerIfNeeded();
    {
        std::lock_guard lock(workerMutex_);
        requested_.fetch_add(1);
    }
    workerWake_.notify_all();
}

void BackupSetController::cancelSizeEvaluation() {
    {
        std::lock_guard lock(workerMutex_);
        cancelledThrough_.store(requested_.load());
    }
    workerWake_.notify_all();
}

std::vector<FVSourceItemPtr> BackupSetController::arrangedObjects() const {
    std::lock_guard lock(mutex_);
    return items_;
}

size_t BackupSetController::count() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

std::vector<std::string> BackupSetController::backupSetPaths() const {
    std::lock_guard lock(mutex_);
    return backupSetPaths_;
}

std::vector<std::string> BackupSetController::excludePaths() const {
    std::lock_guard lock(mutex_);
    return excludePaths_;
}

std::string BackupSetController::totalSizeString() const {
    std::lock_guard lock(mutex_);
    return totalSizeString_;
}

void BackupSetController::startWorkerIfNeeded() {
    std::lock_guard lock(workerMutex_);
    if (!worker_.joinable()) worker_ = std::thread([this] { workerLoop(); });
}

bool BackupSetController::isCancelled(uint64_t generation) const {
    return stopping_.load(std::memory_order_relaxed) || requested_.load(std::memory_order_relaxed) != generation ||
           cancelledThrough_.load(std::memory_order_relaxed) >= generation;
}

void BackupSetController::workerLoop() {
    uint64_t lastRun = 0;
    std::unique_lock lock(workerMutex_);
    for (;;) {
        workerWake_.wait(lock, [&] {
            return stopping_.load() || (requested_.load() != lastRun && requested_.load() > cancelledThrough_.load());
        });
        if (stopping_.load()) return;
        uint64_t generation = requested_.load();
        lastRun = generation;
        // A burst of changes costs one walk: later requests cancel this one during the pause.
        workerWake_.wait_for(lock, kMeasurementPause, [&] { return stopping_.load(); });
        if (stopping_.load()) return;
        lock.unlock();
        measure(generation);
        updateTotalSizeString();
        lock.lock();
    }
}

void BackupSetController::measure(uint64_t generation) {
    for (size_t i = 0;; ++i) {
        FVSourceItemPtr item;
        std::vector<std::string> excludes;
        uint64_t invalidationsSeen = 0;
        {
            std::lock_guard lock(mutex_);
            if (i >= items_.size() || isCancelled(generation)) return;
            item = items_[i];
            if (hasKnownSize(*item) || item->mode() != FVSourceMode::Backup) continue;
            // "Being measured" is the absence of the key; a stale mark set after this point
            // is seen by the walk, and by the counter when the result is stored.
            item->removeValue(FVSourceKey::sizeInMB);
            invalidationsSeen = invalidations_;
            excludes = excludePaths_;
        }

        uint64_t removalsSeen = removals_.load();
        bool removed = false;
        auto isRemoved = [&] {
            uint64_t now = removals_.load(std::memory_order_relaxed);
            if (now == removalsSeen) return removed;
            removalsSeen = now;
            std::lock_guard lock(mutex_);
            removed = std::find(items_.begin(), items_.end(), item) == items_.end();
            return removed;
        };
        double size = sizeOfPathInMB(item->sourcePath(), &excludes, item,
                                     [&] { return isCancelled(generation); }, isRemoved);
        if (size == kStale) continue;
        {
            std::lock_guard lock(mutex_);
            if (invalidations_ != invalidationsSeen || isStale(*item) ||
                std::find(items_.begin(), items_.end(), item) == items_.end())
                continue;
            item->setValue(FVSourceKey::sizeInMB, size);
        }
        postSizeChange();
    }
}

void BackupSetController::postSizeChange() {
    auto notifier = notifier_;
    if (mainQueue_) mainQueue_->post([notifier] { notifier->fire(BackupSetChange::Sizes); });
    else notifier->fire(BackupSetChange::Sizes);
}

void BackupSetController::updateTotalSizeString() {
    {
        std::lock_guard lock(mutex_);
        double total = 0;
        bool calculating = false;
        for (const FVSourceItemPtr& item : items_) {
            if (item->mode() != FVSourceMode::Backup) continue;
            auto size = item->value(FVSourceKey::sizeInMB);
            if (!size || size->doubleValue() == kStale) {
                calculating = true;
                break;
            }
            total += size->doubleValue();
        }
        long long count = static_cast<long long>(items_.size());
        if (calculating) totalSizeString_ = FVStrings::formatPlural("sourceiteminfocalculating", count);
        else if (total > 1000.0) totalSizeString_ = FVStrings::formatPlural("sourceiteminformationGB", count, total * 0.001);
        else totalSizeString_ = FVStrings::formatPlural("sourceiteminformationMB", count, total);
    }
    postSizeChange();
}

double BackupSetController::sizeOfPathInMB(const std::string& path, const std::vector<std::string>* excludePaths,
                                           const FVSourceItemPtr& item, const std::function<bool()>& isCancelled,
                                           const std::function<bool()>& isRemoved) {
    if (path.empty() || excluded(path, excludePaths)) return 0;
    struct stat st {};
    if (FVFileStatus::lstat(path.c_str(), &st) != 0) return 0;
    if (!S_ISDIR(st.st_mode)) return static_cast<double>(st.st_size) * 1e-6;
    const dev_t device = st.st_dev;

    std::string root = path;
    char* roots[] = {root.data(), nullptr};
    FTS* walk = fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr);
    if (!walk) return 0;
    double total = 0;
    bool abandoned = false;
    while (FTSENT* entry = fts_read(walk)) {
        if (entry->fts_level == 0 && (entry->fts_info == FTS_DNR || entry->fts_info == FTS_ERR)) break;
        if (entry->fts_info != FTS_F) continue;
        if (isCancelled() || (item && isStale(*item)) || isRemoved()) {
            abandoned = true;
            break;
        }
        // FTS_XDEV keeps the walk out of mounted folders; a file mounted over a file is left out here.
        if (entry->fts_statp->st_dev != device || excluded(entry->fts_path, excludePaths)) continue;
        total += static_cast<double>(entry->fts_statp->st_size) * 1e-6;
    }
    fts_close(walk);
    if (abandoned || isCancelled()) return kStale;
    return total;
}

}  // namespace ferrovane
