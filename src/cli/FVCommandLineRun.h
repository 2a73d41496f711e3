#pragma once
// One started command-line run: the session over the loaded configuration, its progress on the
// terminal, the results written back into the destination, and the exit status that ends the loop.

#include "backupset/BackupSetController.h"
#include "cli/FVCommandLineReport.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/run/FVMainQueue.h"
#include "engine/session/FVBackupSession.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVCommandLineRun final : public FVBackupSessionDelegate {
public:
    // cancellingSignal: the first signal that cancelled the run, 0 while none has; report, loop
    // and the signal outlive the run.
    FVCommandLineRun(FVCommandLineReport& report, FVRunLoop& loop, const std::atomic<int>& cancellingSignal,
                     std::string destinationPath, std::string settingsPath, FVConfiguration configuration,
                     std::vector<std::string> skippedItems, const FVOptions& options);
    ~FVCommandLineRun() override;

    // Posts the session's start to the loop; a signal that came before keeps it from starting.
    void start();
    // On the loop's thread.
    void cancel();

    void backupSessionProgressDidChange(FVBackupSession& session) override;
    void backupSessionDidFinish(FVBackupSession& session) override;
    void backupSessionDidCancel(FVBackupSession& session) override;
    void backupSessionWouldChange(FVBackupSession& session, const std::string& line) override;
    void backupSessionHookDidPrint(FVBackupSession& session, std::string_view line) override;

private:
    void finishOnMainThread();
    // The end of every run that started: the summary line (or the JSON summary) on standard
    // output, then the loop stops with status.
    void end(std::string_view outcome, const FVRunSummary& summary, int status);
    void itemChanged(FVItemChange change, const std::string& path);
    FVProgressStep progressStep(FVBackupSession& session);
    // The status of a run that finished: the one given, or 128 + the signal that came meanwhile.
    int finishedStatus(int status) const;

    FVCommandLineReport& report_;
    FVRunLoop& loop_;
    const std::atomic<int>& cancellingSignal_;
    std::string destinationPath_;
    std::string settingsPath_;
    FVConfiguration configuration_;
    // The item the run handled last, for the JSON progress.
    std::mutex lastItemMutex_;
    std::string lastItem_;
    std::unique_ptr<BackupSetController> backupSetController_;
    std::unique_ptr<FVBackupSession> backupSession_;
};

}  // namespace ferrovane
