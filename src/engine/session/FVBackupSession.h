#pragma once
// One whole backup of a destination as the front ends see it: the destination's probe and the
// free-space rule before anything is touched, the hooks, the run itself (FVBackupPipeline, in
// the order of its stages) on its own thread, session-wide progress, cancellation, sleep
// prevention, the per-item results written into the shared items, and the summary at the end.

#include "engine/config/FVOptions.h"
#include "engine/config/FVSourceItem.h"
#include "engine/run/FVRunHooks.h"
#include "engine/run/FVRunStatus.h"
#include "engine/run/FVRunSummary.h"
#include "engine/session/FVBackupPipeline.h"
#include "engine/session/FVRoomForRun.h"
#include "engine/session/FVSyncingBackup.h"
#include "platform/FVSleepInhibitor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ferrovane {

class FVBackupSession;

// Callbacks arrive on the job's threads; front ends move their work to the main thread.
class FVBackupSessionDelegate {
public:
    virtual ~FVBackupSessionDelegate() = default;
    virtual void backupSessionProgressDidChange(FVBackupSession& session) {}
    virtual void backupSessionDidFinish(FVBackupSession& session) {}
    virtual void backupSessionDidCancel(FVBackupSession& session) {}
    // A dry run's decision, one line ("Would copy: PATH"), in the order the run makes them.
    virtual void backupSessionWouldChange(FVBackupSession& session, const std::string& line) {}
    // A line that the before- or after-hook wrote; it is in the run log already.
    virtual void backupSessionHookDidPrint(FVBackupSession& session, std::string_view line) {}
};

class FVBackupSession final : private FVBackupPipeline::Listener {
public:
    FVBackupSession() = default;
    // Waits for a run in progress to end (a delegate may also destroy the session from its
    // finish or cancel callback).
    ~FVBackupSession() override;

    void setDelegate(FVBackupSessionDelegate* delegate) { delegate_ = delegate; }
    void setDestinationPath(std::string path) { destinationPath_ = std::move(path); }
    void setBackupOptions(const FVOptions& options) { backupOptions_ = options; }
    void setBackupSet(std::vector<FVSourceItemPtr> items) { backupSet_ = std::move(items); }
    void setExcludePaths(std::vector<std::string> paths) { excludePaths_ = std::move(paths); }
    // Problems found while reading the configuration (source items that were skipped): they are
    // errors of the run, listed first.
    void setConfigurationProblems(std::vector<std::string> problems) { configurationProblems_ = std::move(problems); }
    // The whole run's decisions, each reported as a log line ("Would copy: ..."), with nothing
    // changed: not the destination, not the items' results.
    void setDryRun(bool dryRun) { dryRun_ = dryRun; }
    // Each item the run copies, archives or deletes, on the thread that did it; set before start.
    void setItemListener(std::function<void(FVItemChange, const std::string&)> listener) {
        itemListener_ = std::move(listener);
    }
    // What started the run, as the hooks are told: manual, schedule, connect or window.
    void setTrigger(std::string trigger) { trigger_ = std::move(trigger); }
    // Where hook approvals are looked up; the user's own folder unless set.
    void setHookApprovals(FVHookApprovals approvals) { hookApprovals_ = std::move(approvals); }

    // Starts the run on its own thread and returns at once.
    void start();
    void cancel();

    float progressPercent() const;
    std::vector<std::string> errorMessages() const;
    // What the run says once that is no error (see FVSyncingBackup::notes).
    std::vector<std::string> notes() const;
    // What the user should know that is neither an error nor a note (see FVSyncingBackup::warnings):
    // a run with warnings did not finish successfully.
    std::vector<std::string> warnings() const;
    // What the machine around the run lacks, once each (no sleep prevention, no log file): the
    // run is not worse for it, and its outcome does not change. Read once the session has ended.
    std::vector<std::string> environmentWarnings() const;
    uint64_t sessionTotalBytesCopied() const;
    std::string currentTaskDescription() const;
    bool shouldPerformCleanup() const { return shouldPerformCleanup_; }
    uint64_t sessionTaskCount() const { return sessionTaskCount_; }
    // Nothing until the run has passed the free-space rule.
    FVSyncingBackup* syncingBackup() const { return job_.load(); }
    // The run stopped before copying because it did not fit on the destination, nobody stopped
    // it; its one message is in errorMessages(). Read once the session has ended.
    bool stoppedForSpace() const { return stoppedForSpace_.load(); }
    // The source a stop or failure interrupted; empty when it struck before or after the items.
    std::string interruptedSourcePath() const;
    // The line that ended the run for its destination (failed, gone); empty while it held.
    std::string destinationFailure() const;
    // Why the run ended before it touched anything (also among errorMessages()); empty otherwise.
    const std::string& refusal() const { return refusal_; }
    // The before-hook failed and the run was skipped with nothing touched; the reason is refusal().
    // Read once the session has ended.
    bool skippedByBeforeHook() const { return skippedByBeforeHook_.load(); }
    // What the window and the command line say of a finished run: the files it changed, and
    // "Changed: 1.5% Duration: 3 seconds" (the share of the enabled items' files).
    int32_t updatedFileCount() const;
    double changedPercent() const;
    std::string finishedSummary() const;
    // What the run did so far; from any thread.
    FVRunTotals totals() const;
    // The file whose data was written last, and the copies published in the source item in
    // hand (the one interruptedSourcePath names); from any thread.
    std::string currentFile() const;
    uint64_t copiedInSourceItem() const;
    // The line that ended the run (also its last line in the log), with the counts it was made
    // of; read once the session has ended.
    const FVRunSummary& summary() const { return summary_; }
    // When the run started and ended, in seconds since 1970; the stamp of its archive folders and
    // record, empty for a run refused before it had one. Read once the session has ended.
    double startedAt() const { return startedAt_; }
    double finishedAt() const { return finishedAt_; }
    const std::string& stamp() const { return runSettings_.archiveFolderName; }

private:
    // The run from the first source item to the end, on driver_.
    void run();
    // Between the pipeline's stages: progress, and each source item's results.
    void sourceWillStart(const FVSourceItem& item, size_t index) override;
    void sourceDidFinish(FVSourceItem& item, size_t index, bool unreadable) override;
    void cleanupWillStart() override;
    void purgeWillStart() override;
    void recordResults(FVSourceItem& item) const;
    // A source that could not be read keeps the results of its last good backup.
    void recordUnreadable(FVSourceItem& item) const;
    void finish();
    // Ends the run before it touches anything: the problem goes to the log and the errors.
    void refuse(const std::string& problem);
    // The look ahead of a run that may not fit, and the purge it allows; false when the run ended.
    bool makeRoom();
    void stopForSpace(const std::string& problem);
    // The end of a cancelled run, after lastLogLine; the delegate may destroy this session.
    void endCancelled(const std::string& lastLogLine);
    // Creates the sync job; from here on the run writes.
    void beginJob();
    void setTaskDescription(std::string text);
    // The before-hook on the run's thread; false when the run ended there (skipped or cancelled).
    bool runBeforeHook();
    // The after-hook with how the run ended, before the front end hears of the end.
    void runAfterHook(const char* outcome);
    void progressStep();
    // Fixes the summary of the run's end and writes it to the log.
    void logSummary(bool stopped);

    FVBackupSessionDelegate* delegate_ = nullptr;
    std::string destinationPath_;
    FVOptions backupOptions_;
    std::vector<std::string> configurationProblems_;
    std::string refusal_;
    std::vector<FVSourceItemPtr> backupSet_;
    std::vector<std::string> excludePaths_;
    std::vector<FVSourceItemPtr> enabledItems_;
    bool dryRun_ = false;
    std::function<void(FVItemChange, const std::string&)> itemListener_;
    double startedAt_ = 0;
    double finishedAt_ = 0;
    FVRunSummary summary_;
    FVRunSettings runSettings_;
    std::string probeProblem_;

    // The free-space rule, with the quiet status of its look ahead.
    FVRunStatus planningStatus_{false, [] {}};
    std::unique_ptr<FVRoomForRun> room_;
    std::vector<std::string> roomWarnings_;
    std::vector<std::string> roomNotes_;
    std::atomic<bool> stoppedForSpace_{false};
    std::atomic<bool> skippedByBeforeHook_{false};
    std::string trigger_ = "window";
    FVHookApprovals hookApprovals_;
    FVRunHooks hooks_;
    FVHookRun hookRun_;
    std::atomic<bool> cancelRequested_{false};

    bool shouldPerformCleanup_ = false;
    uint64_t sessionTaskCount_ = 0;
    // The step in hand: the source item's index, then the number of items for the cleanup.
    std::atomic<uint64_t> currentItemIndex_{0};
    // The enabled item being backed up, -1 between and outside them.
    std::atomic<int64_t> itemInProgress_{-1};

    mutable std::mutex taskMutex_;
    std::string currentTaskDescription_;

    FVSleepInhibitor sleepInhibitor_;
    std::string sleepProblem_;
    std::unique_ptr<FVSyncingBackup> syncingBackup_;
    // The job for the front ends' threads, published once it exists.
    std::atomic<FVSyncingBackup*> job_{nullptr};
    std::thread driver_;
};

}  // namespace ferrovane
