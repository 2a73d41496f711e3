// Whole backup runs of the built executable on real trees: the mirror, both archives, the log,
// standard output, the exit status and the configuration written back.

#include "cli/DestinationFixture.h"
#include "scheduling/FVJobStatus.h"
#include "support/JsonQuery.h"
#include "support/TestHooks.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;
namespace fs = std::filesystem;

namespace {

class BackupRun : public DestinationFixture {
protected:
    // 10,000 small files: a run over them lasts long enough to be caught in the middle.
    void makeManyFiles() {
        makeDirs(source + "/Many");
        for (int d = 0; d < 40; ++d) {
            std::string folder = source + "/Many/d" + std::to_string(d);
            makeDirs(folder);
            for (int f = 0; f < 250; ++f) writeFile(folder + "/f" + std::to_string(f), std::string(4096, 'x'));
            // Dated well before the runs, as real folders are: a folder that an interrupted run
            // made but could not date then differs from its source and is dated next time.
            setMtime(folder, 1'000'000'000);
        }
    }

    // A run with its standard output in out.txt, started with the hooks given.
    pid_t startRunInBackground(const TestHooks& hooks) {
        pid_t pid = fork();
        if (pid == 0) {
            setenv("FERROVANE_LOG_FILE", logPath().c_str(), 1);
            setenv("FERROVANE_JOB_STATUS_DIRECTORY", statusFolder().c_str(), 1);
            setenv(hooks.env().first.c_str(), hooks.env().second.c_str(), 1);
            unsetenv("DISPLAY");
            freopen((dir / "out.txt").c_str(), "w", stdout);
            execl(FERROVANE_EXECUTABLE, FERROVANE_EXECUTABLE, destination.c_str(), "-noUserNotifications", nullptr);
            _exit(127);
        }
        return pid;
    }

    static std::vector<std::string> listFolder(const std::string& path) {
        std::vector<std::string> names;
        if (!exists(path)) return names;
        for (const auto& e : fs::directory_iterator(path)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // Options of a destination with an identity, whose runs record their attempts.
    static PlistDict identified() {
        PlistDict options = defaults();
        options.set("UUID", kUUID);
        return options;
    }

    FVJobAttempt lastAttempt() const {
        return FVJobStatusStore(statusFolder()).read(kUUID).value_or(FVJobStatus{}).lastAttempt.value_or(FVJobAttempt{});
    }

    static constexpr const char* kUUID = "6A1C0E55-2D4B-4F3A-9E8D-7C6B5A4F3E2D";

    static void setMtime(const std::string& path, time_t seconds) {
        timespec times[2] = {{seconds, 0}, {seconds, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
};

}  // namespace

TEST_F(BackupRun, MirrorsSeveralSourcesAndWritesTheResultsBack) {
    buildTree(source, {{"Docs/a.txt", "alpha"}, {"Docs/letters/b.txt", std::string(3'000'000, 'b')},
                       {"Docs/letters/old/c.txt", "c"}, {"Docs/empty/", ""}, {"Docs/skip-me/x", "x"},
                       {"Docs/notes.tmp", "excluded by name"}, {"single.txt", "one file as a source"}});
    symlink("a.txt", (source + "/Docs/link").c_str());
    setMtime(source + "/Docs/letters/old", 1'000'000'000);

    configure({{source + "/Docs", FVSourceMode::Backup},
               {source + "/single.txt", FVSourceMode::Backup},
               {source + "/Docs/skip-me", FVSourceMode::ExcludePath},
               {"notes.tmp", FVSourceMode::ExcludeName},
               {source + "/missing", FVSourceMode::Backup},
               {source + "/disabled", FVSourceMode::Disabled}},
              defaults());

    auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_EQ(result.out.substr(result.out.size() - 29), "\nSync finished successfully.\n");
    // Through a pipe: one plain line per source item, no control codes.
    EXPECT_NE(result.out.find("\nBacking up Docs…\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find('\033'), std::string::npos) << result.out;

    EXPECT_EQ(readFile(destination + "/single.txt"), "one file as a source");
    EXPECT_FALSE(exists(destination + "/Docs/skip-me/x"));
    EXPECT_FALSE(exists(destination + "/Docs/notes.tmp"));
    // Apart from the exclusions the mirror is exact, folder dates included (taking the
    // exclusions out of the source must not change its folder's date).
    struct stat docs {};
    lstat((source + "/Docs").c_str(), &docs);
    fs::remove_all(source + "/Docs/skip-me");
    fs::remove(source + "/Docs/notes.tmp");
    timespec times[2] = {docs.st_atim, docs.st_mtim};
    utimensat(AT_FDCWD, (source + "/Docs").c_str(), times, 0);
    EXPECT_EQ(differences(source + "/Docs/", destination + "/Docs/"), "");

    FVConfiguration saved = readBack();
    ASSERT_EQ(saved.sources.size(), 6u);
    EXPECT_TRUE(saved.sources[0]->value("lastBackupDate").has_value());
    EXPECT_EQ(saved.sources[1]->integerValue("updatedFilesCount"), 1);
    EXPECT_GE(saved.sources[0]->integerValue("totalBytesCopied"), 3'000'000);
    EXPECT_TRUE(saved.sources[4]->value("lastBackupDate").has_value()) << "a missing source is dated too";
    EXPECT_FALSE(saved.sources[5]->value("lastBackupDate").has_value());
    EXPECT_FALSE(saved.sources[2]->value("lastBackupDate").has_value());

    std::string log = readFile(logPath());
    EXPECT_NE(log.find("Configuration: Default; Ignore changes to extended attributes; Threads: 2;"),
              std::string::npos);
    EXPECT_NE(log.find("Source: " + source + "/missing (UNAVAILABLE AND NOT UPDATED)."), std::string::npos);
    EXPECT_NE(log.find("Sync finished (Duration: "), std::string::npos);

    // Nothing changed: a second run, on a terminal this time, copies nothing; its progress is one
    // line rewritten in place and ended before the outcome.
    auto again = runProcess({"/usr/bin/script", "-qec", std::string(FERROVANE_EXECUTABLE) + " '" + destination +
                             "' -noUserNotifications", "/dev/null"},
                            {{"DISPLAY", std::nullopt}, {"FERROVANE_LOG_FILE", logPath()}});
    ASSERT_EQ(again.exitStatus, 0) << again.out;
    EXPECT_EQ(readBack().sources[0]->integerValue("updatedFilesCount"), 0);
    EXPECT_NE(again.out.find("\rBacking up "), std::string::npos) << again.out;
    EXPECT_NE(again.out.find("\033[K\r\n\r\nSync finished successfully."), std::string::npos) << again.out;
}

TEST_F(BackupRun, ArchivesChangedAndRemovedItemsUnderTheRunStamp) {
    buildTree(source, {{"Docs/keep.txt", "same"}, {"Docs/change.txt", "version 1"},
                       {"Docs/sub/gone.txt", "soon removed"}, {"Docs/._keep.txt", "companion"},
                       {"Docs/deep/er/old.txt", "old"}});
    PlistDict options = defaults();
    options.set("moveChangedFiles", int64_t{1});
    configure({{source + "/Docs", FVSourceMode::Backup}}, options);
    ASSERT_EQ(run().exitStatus, 0);

    writeFile(source + "/Docs/change.txt", "version 2, longer");
    fs::remove_all(source + "/Docs/sub");
    // A folder whose mirror holds as many names as the source, but not the same ones.
    fs::rename(source + "/Docs/deep/er/old.txt", source + "/Docs/deep/er/new.txt");
    // A dry run names each change and makes none, not even in the configuration.
    const std::string untouched = treeDigest(destination);
    auto dry = run({"--dry-run"});
    ASSERT_EQ(dry.exitStatus, 0) << dry.out << dry.err;
    EXPECT_EQ(treeDigest(destination), untouched);
    for (const std::string& line : {"Would copy: " + source + "/Docs/change.txt\n",
                                    "Would archive: " + destination + "/Docs/change.txt\n",
                                    "Would archive: " + destination + "/Docs/sub\n", std::string("nothing was changed")})
        EXPECT_NE(dry.out.find(line), std::string::npos) << line << dry.out;
    auto second = run();
    ASSERT_EQ(second.exitStatus, 0) << second.out;

    EXPECT_EQ(readFile(destination + "/Docs/change.txt"), "version 2, longer");
    EXPECT_FALSE(exists(destination + "/Docs/sub"));
    auto changedStamps = listFolder(destination + "/__changed");
    auto removedStamps = listFolder(destination + "/__removed");
    ASSERT_EQ(changedStamps.size(), 1u);
    ASSERT_EQ(removedStamps.size(), 1u);
    EXPECT_EQ(changedStamps, removedStamps) << "one stamp per run";
    EXPECT_EQ(readFile(destination + "/__changed/" + changedStamps[0] + "/Docs/change.txt"), "version 1");
    EXPECT_EQ(readFile(destination + "/__removed/" + removedStamps[0] + "/Docs/sub/gone.txt"), "soon removed");
    EXPECT_EQ(readFile(destination + "/__removed/" + removedStamps[0] + "/Docs/deep/er/old.txt"), "old");
    EXPECT_EQ(differences(source + "/Docs/deep/", destination + "/Docs/deep/"), "");
    EXPECT_EQ(listFolder(destination + "/__changed/" + changedStamps[0] + "/Docs"),
              std::vector<std::string>{"change.txt"});
    EXPECT_EQ(readFile(destination + "/Docs/._keep.txt"), "companion");

    // runs lists the run's stamp with what each archive holds, and writes nothing.
    std::string before = treeDigest(destination);
    auto runs = ferrovane({"runs", destination, "--json"});
    ASSERT_EQ(runs.exitStatus, 0) << runs.err;
    EXPECT_EQ(jsonQuery(runs.out, "[(r['stamp'], r['changed'], r['removed']) for r in d['runs']]"),
              "[('" + changedStamps[0] + "', {'items': 1, 'bytes': 9}, {'items': 2, 'bytes': 15})]");
    EXPECT_EQ(jsonQuery(runs.out, "[(s['path'], s['totalFiles'] > 0) for s in d['sources']]"),
              "[('" + source + "/Docs', True)]");
    // The record of each run, newest first, with its counts.
    EXPECT_EQ(jsonQuery(runs.out, "[(r['stamp'] == d['runs'][0]['stamp'], r['outcome'], r['complete'], r['files'], "
                                  "r['copied'], r['archived'], r['removed'], r['errors']) for r in d['records']]"),
              "[(True, 'complete', True, 4, 2, 3, 2, 0), (False, 'complete', True, 5, 5, 0, 0, 0)]");
    EXPECT_EQ(ferrovane({"runs", destination}).exitStatus, 0);
    EXPECT_EQ(treeDigest(destination), before);

    std::string log = readFile(logPath());
    EXPECT_NE(log.find("Archiving deleted items finished: archived 2 items."), std::string::npos);
}

TEST_F(BackupRun, AFolderReplacedByAnythingElseIsArchivedAsRemovedAndAnItemReplacedByAFolderAsChanged) {
    buildTree(dir.path(), {{"src/Docs/sub/a.txt", "a"}, {"src/Docs/note", "a note"}, {"elsewhere/", ""}});
    symlink("note", (source + "/Docs/link").c_str());
    PlistDict options = defaults();
    options.set("moveChangedFiles", int64_t{1});
    configure({{source + "/Docs", FVSourceMode::Backup}}, options);
    ASSERT_EQ(run().exitStatus, 0);

    // The folder moved to another disk and a link left in its place.
    fs::rename(source + "/Docs/sub", dir / "sub.old");
    fs::create_directory_symlink(dir / "elsewhere", source + "/Docs/sub");
    // While its archive cannot be made, the folder stays and the link waits.
    writeFile(destination + "/__removed", "in the way");
    auto blocked = run();
    EXPECT_EQ(blocked.exitStatus, 255);
    EXPECT_NE(blocked.err.find("Archiving replaced folder failed: " + destination + "/Docs/sub"), std::string::npos)
        << blocked.err;
    EXPECT_EQ(readFile(destination + "/Docs/sub/a.txt"), "a");
    fs::remove(destination + "/__removed");

    // A file and a link that became folders within seconds: no date tells them apart.
    for (const char* name : {"note", "link"}) {
        fs::remove(source + "/Docs/" + name);
        buildTree(source + "/Docs", {{std::string(name) + "/inner.txt", name}});
    }
    ASSERT_EQ(run().exitStatus, 0);
    EXPECT_EQ(differences(source + "/Docs/", destination + "/Docs/"), "");
    auto removed = listFolder(destination + "/__removed"), changed = listFolder(destination + "/__changed");
    ASSERT_EQ(removed.size(), 1u);
    ASSERT_EQ(changed.size(), 1u);
    EXPECT_EQ(readFile(destination + "/__removed/" + removed[0] + "/Docs/sub/a.txt"), "a");
    EXPECT_EQ(readFile(destination + "/__changed/" + changed[0] + "/Docs/note"), "a note");
    EXPECT_EQ(fs::read_symlink(destination + "/__changed/" + changed[0] + "/Docs/link"), "note");
}

TEST_F(BackupRun, DeletesRemovedItemsWhenArchivingIsOffButNeverEmptiesAnUnmountedVolume) {
    buildTree(source, {{"Volume/precious.txt", "only copy"}, {"Docs/old.txt", "old"}});
    PlistDict options = defaults();
    options.set("moveDeletedFiles", int64_t{0});
    configure({{source + "/Volume", FVSourceMode::Backup}, {source + "/Docs", FVSourceMode::Backup}}, options);
    ASSERT_EQ(run().exitStatus, 0);

    fs::remove(source + "/Volume/precious.txt");  // looks like a volume that is not mounted
    fs::remove(source + "/Docs/old.txt");
    writeFile(source + "/Docs/new.txt", "new");
    auto second = run();
    EXPECT_EQ(second.exitStatus, 255);
    EXPECT_NE(second.err.find("Backup errors:\nNot removing the contents of " + destination + "/Volume"),
              std::string::npos)
        << second.err;
    EXPECT_EQ(readFile(destination + "/Volume/precious.txt"), "only copy");
    EXPECT_FALSE(exists(destination + "/Docs/old.txt"));
    EXPECT_FALSE(exists(destination + "/__removed"));

    // Emptied on purpose: once confirmed, the next run empties the mirror and uses the confirmation up.
    ASSERT_EQ(ferrovane({"config", destination, "confirm-empty", source + "/Volume"}).exitStatus, 0);
    ASSERT_EQ(run().exitStatus, 0);
    EXPECT_FALSE(exists(destination + "/Volume/precious.txt"));
    EXPECT_FALSE(readBack().sources[0]->value(FVSourceKey::emptySourceConfirmed));
}

TEST_F(BackupRun, ARunThatCannotBeRecordedMakesItsBackupAndEndsWithOneWarning) {
    buildTree(source, {{"Docs/a.txt", "a"}});
    configure({{source + "/Docs", FVSourceMode::Backup}}, identified());
    writeFile(destination + "/__runs", "not a folder");
    auto result = run();
    EXPECT_EQ(result.exitStatus, 1) << result.out << result.err;
    EXPECT_NE(result.out.find("Sync finished with warnings."), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("Warning: This run is not recorded"), std::string::npos) << result.err;
    EXPECT_EQ(differences(source + "/Docs/", destination + "/Docs/"), "");
    const std::string log = readFile(logPath());
    EXPECT_EQ(log.find("WARNING: This run is not recorded"), log.rfind("WARNING: This run is not recorded"));
    EXPECT_NE(log.find("WARNING: This run is not recorded"), std::string::npos);
    EXPECT_EQ(lastAttempt().outcome, FVJobOutcome::Warnings);
    EXPECT_EQ(lastAttempt().message.rfind("This run is not recorded", 0), 0u) << lastAttempt().message;
}

TEST_F(BackupRun, RebuildsFullSourcePathsWithoutSyncModeAndCountsAMissingThreadOption) {
    writeFile(source + "/a.txt", "a");
    PlistDict options;  // no options at all: every one reads as 0
    configure({{source, FVSourceMode::Backup}}, options);
    auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_EQ(readFile(destination + source + "/a.txt"), "a");
    EXPECT_NE(readFile(logPath()).find("Configuration: Rebuild source path; Threads: 0;"), std::string::npos);
}

TEST_F(BackupRun, InterruptCancelsCleanlyAndLeavesTheConfigurationAlone) {
    makeManyFiles();
    configure({{source + "/Many", FVSourceMode::Backup}}, identified());
    std::string before = readFile(FVConfigurationFile::formattedPath(destination));

    // Held between two files until the interrupt has cancelled the run.
    TestHooks hooks(dir / "hooks");
    hooks.arm("between-files");
    pid_t pid = startRunInBackground(hooks);
    ASSERT_TRUE(hooks.waitUntilReached("between-files"));
    kill(pid, SIGINT);
    for (int i = 0; i < 6000 && readFile(logPath()).find("Aborting sync...") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    hooks.release("between-files");
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGINT);
    EXPECT_EQ(lastAttempt().outcome, FVJobOutcome::Stopped);
    std::string out = readFile(dir / "out.txt");
    EXPECT_EQ(out.substr(out.size() - 16), "Backup stopped.\n");
    EXPECT_EQ(readFile(FVConfigurationFile::formattedPath(destination)), before);
    for (const auto& e : fs::recursive_directory_iterator(destination))
        EXPECT_EQ(e.path().filename().string().rfind(".ferrovane-tmp", 0), std::string::npos) << e.path();

    auto completed = run();
    ASSERT_EQ(completed.exitStatus, 0);
    EXPECT_EQ(differences(source + "/Many/", destination + "/Many/"), "");
}

TEST_F(BackupRun, AnOptionThatCannotBeUsedStopsTheRunBeforeItTouchesTheDestination) {
    writeFile(source + "/a.txt", "new version");
    const std::vector<std::pair<const char*, PlistValue>> bad = {
        {"purgeChangedArchiveDays", "thirty"},    {"moveChangedFiles", "yes"},
        {"purgeRemovedArchiveDays", int64_t{0}},  {"maxThreads", int64_t{0}},
        {"moveDeletedFiles", int64_t{2}},         {"syncMode", 1.0},
        {"maxThreads", true},                     {"purgeChangedArchive", PlistDate{0}},
        {"automationTimeHours", int64_t{24}},     {"UUID", int64_t{5}},
    };
    for (const auto& [key, value] : bad) {
        fs::remove_all(destination);
        makeDirs(destination + "/src");
        writeFile(destination + "/src/a.txt", "old version");
        makeDirs(destination + "/__changed/2000-01-01 00.00.00 +0000");
        makeDirs(destination + "/__removed/2000-01-01 00.00.00 +0000");
        PlistDict options = defaults();
        for (const char* flag : {"moveChangedFiles", "purgeChangedArchive", "purgeRemovedArchive"})
            options.set(flag, int64_t{1});
        options.set(key, value);
        configure({{source, FVSourceMode::Backup}}, options);
        std::string before = treeDigest(destination);

        auto result = run();
        EXPECT_EQ(result.exitStatus, 255) << key;
        EXPECT_NE(result.err.find(std::string("Option ") + key + ": expected "), std::string::npos) << result.err;
        EXPECT_EQ(treeDigest(destination), before) << key << " " << value.typeName();
    }
    auto r = run();
    EXPECT_NE(r.err.find("Option UUID: expected a text, found the number 5."), std::string::npos) << r.err;
}

TEST_F(BackupRun, UnusableSourceItemsAreSkippedReportedAndKeptInTheFile) {
    makeDirs(source + "/Docs");
    writeFile(source + "/Docs/a.txt", "a");
    std::string path = FVConfigurationFile::formattedPath(destination);
    writeFile(path, "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>settings</key>"
                    "<dict><key>syncMode</key><integer>1</integer></dict>"
                    "<key>sources</key><array><string>oops</string>"
                    "<dict><key>sourcePath</key><string>" + source + "/Docs</string>"
                    "<key>enabled</key><integer>1</integer></dict>"
                    "<dict><key>enabled</key><integer>1</integer><key>note</key><string>mine</string></dict>"
                    "</array></dict></plist>");

    auto result = run();
    EXPECT_EQ(result.exitStatus, 255) << "the skipped items are errors of the run";
    EXPECT_EQ(readFile(destination + "/Docs/a.txt"), "a") << "the usable item ran";
    EXPECT_NE(result.err.find("Backup errors:\nSource item 1 of " + path + " was skipped"), std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("Source item 3 of " + path + " was skipped: it has no \"sourcePath\""),
              std::string::npos) << result.err;

    // The run's write-back, then a change by "config", keep both items where they were.
    auto added = runProcess({FERROVANE_EXECUTABLE, "config", destination, "add", source + "/More"});
    ASSERT_EQ(added.exitStatus, 0) << added.err;
    auto parsed = parsePlist(readFile(path));
    ASSERT_TRUE(parsed.value);
    const PlistArray& items = **(*parsed.value->dict())->find("sources")->array();
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0], PlistValue("oops"));
    EXPECT_TRUE((*items[1].dict())->contains("lastBackupDate"));
    EXPECT_EQ((*items[2].dict())->stringValue("note"), "mine");
    EXPECT_EQ((*items[3].dict())->stringValue("sourcePath"), source + "/More");
}
