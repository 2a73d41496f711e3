#pragma once
// Whole backup sessions into a temporary destination: the log kept in the test's folder, the
// options a new configuration file starts with, and a delegate that records the progress, can
// stop the run once a task begins, and waits for the end.

#include "engine/config/FVConfigurationFile.h"
#include "engine/session/FVBackupSession.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ferrovane::test {

class SessionRecorder : public FVBackupSessionDelegate {
public:
    void backupSessionProgressDidChange(FVBackupSession& session) override {
        {
            std::lock_guard lock(mutex_);
            progress.push_back(session.progressPercent());
            if (cancelWhenTaskContains.empty() || cancelRequested ||
                session.currentTaskDescription().find(cancelWhenTaskContains) == std::string::npos)
                return;
            cancelRequested = true;
        }
        session.cancel();  // reports progress itself, so not under the lock
    }
    void backupSessionDidFinish(FVBackupSession&) override { end("finished"); }
    void backupSessionDidCancel(FVBackupSession&) override { end("cancelled"); }

    // "finished" or "cancelled"; empty when the session did not end within a minute.
    std::string wait() {
        std::unique_lock lock(mutex_);
        done_.wait_for(lock, std::chrono::seconds(60), [&] { return !outcome.empty(); });
        return outcome;
    }

    std::vector<float> progress;
    std::string cancelWhenTaskContains;
    bool cancelRequested = false;
    std::string outcome;

private:
    void end(const char* what) {
        std::lock_guard lock(mutex_);
        outcome = what;
        done_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable done_;
};

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("FERROVANE_LOG_FILE", (dir / "Ferrovane.log").c_str(), 1);
        makeDirs(dir / "dest");
        PlistDict defaults;
        FVConfigurationFile::applyDefaultOptions(defaults);
        options = FVOptionTable::read(defaults).options;
    }
    void TearDown() override { unsetenv("FERROVANE_LOG_FILE"); }

    // Runs the set into dir/dest with the options; the outcome as the recorder waited for it.
    std::string run(FVBackupSession& session, SessionRecorder& recorder, std::vector<FVSourceItemPtr> set) {
        session.setDelegate(&recorder);
        session.setDestinationPath(dir / "dest");
        session.setBackupOptions(options);
        session.setBackupSet(std::move(set));
        session.start();
        return recorder.wait();
    }

    TempDir dir;
    FVOptions options;
};

}  // namespace ferrovane::test
