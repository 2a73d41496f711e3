#pragma once
// A source folder and a destination in a temporary folder, configured with the shared writer,
// and the built executable run on them without a display.

#include "engine/config/FVConfigurationFile.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace ferrovane::test {

class DestinationFixture : public ::testing::Test {
protected:
    void SetUp() override {
        makeDirs(source);
        makeDirs(destination);
    }

    void configure(const std::vector<std::pair<std::string, FVSourceMode>>& sources, PlistDict options) {
        std::vector<FVSourceItemPtr> items;
        for (const auto& [path, mode] : sources) items.push_back(FVSourceItem::make(path, mode));
        ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(
            items, options, FVConfigurationFile::formattedPath(destination)));
    }

    static PlistDict defaults() {
        PlistDict options;
        FVConfigurationFile::applyDefaultOptions(options);
        return options;
    }

    using Environment = std::map<std::string, std::optional<std::string>>;
    // Every run here has no display, and keeps its log, the status of runs, the approved hooks,
    // the trash and the caches in the test's folder, never in the user's; more wins over these.
    Environment environment(Environment more = {}) const {
        more.insert({{"DISPLAY", std::nullopt}, {"FERROVANE_LOG_FILE", logPath()}, {"XDG_DATA_HOME", dir / "data"},
                     {"XDG_CACHE_HOME", dir / "cache"}, {"FERROVANE_JOB_STATUS_DIRECTORY", statusFolder()},
                     {"FERROVANE_HOOK_APPROVAL_DIRECTORY", approvalFolder()}});
        return more;
    }

    ProcessResult ferrovane(std::vector<std::string> args) {
        args.insert(args.begin(), FERROVANE_EXECUTABLE);
        return runProcess(args, environment());
    }

    // A backup run, notifications off, with more arguments after the destination.
    ProcessResult run(std::vector<std::string> extra = {}) {
        extra.insert(extra.begin(), {destination, "-noUserNotifications"});
        return ferrovane(extra);
    }

    std::string logPath() const { return dir / "Ferrovane.log"; }
    // Where runs record their attempts, instead of the user's own status.
    std::string statusFolder() const { return dir / "state"; }
    // Where the hooks this user set are recorded, instead of the user's own folder.
    std::string approvalFolder() const { return dir / "approvals"; }

    FVConfiguration readBack() {
        auto r = FVConfigurationFile::read(FVConfigurationFile::formattedPath(destination));
        EXPECT_EQ(r.status, FVConfigurationReadStatus::Ok) << r.problem;
        return r.configuration;
    }

    // What rsync would still carry over; empty when the copy is exact.
    static std::string differences(const std::string& from, const std::string& to) {
        auto r = runProcess({"/usr/bin/rsync", "-aAXn", "--itemize-changes", from, to});
        return r.out + r.err;
    }

    TempDir dir;
    std::string source = dir / "src", destination = dir / "dest";
};

}  // namespace ferrovane::test
