// Whole backup runs of the built executable on real trees: the mirror, both archives, the log,
// standard output, the exit status and the configuration written back.

#include "cli/DestinationFixture.h"
#include "fs/FVFileDescriptor.h"
#include "scheduling/FVJobStatus.h"
#include "support/JsonQuery.h"
#include "support/TestHooks.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

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
            setModificationTime(folder, 1'000'000'000);
        }
    }

    // The program with its standard output in out.txt, started with the hooks given.
    pid_t startInBackground(const TestHooks& hooks, std::vector<std::string> args) {
        args.insert(args.begin(), FERROVANE_EXECUTABLE);
        return startProcess(args, {{"FERROVANE_LOG_FILE", logPath()}, {"FERROVANE_JOB_STATUS_DIRECTORY", statusFolder()},
                                   {hooks.env().first, hooks.env().second}, {"DISPLAY", std::nullopt}},
                            dir / "out.txt");
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

    // A run's last line, its summary, without the duration that ends it.
    static std::string summary(const std::string& out) {
        const size_t start = out.rfind('\n', out.size() - 2);
        const std::string line = out.substr(start == std::string::npos ? 0 : start + 1);
        return line.substr(0, line.rfind(" in "));
    }
};

}  // namespace

TEST_F(BackupRun, MirrorsSeveralSourcesAndWritesTheResultsBack) {
    buildTree(source, {{"Docs/a.txt", "alpha"}, {"Docs/letters/b.txt", std::string(3'000'000, 'b')},
                       {"Docs/letters/old/c.txt", "c"}, {"Docs/empty/", ""}, {"single.txt", "one file as a source"}});
    symlink("a.txt", (source + "/Docs/link").c_str());
    setModificationTime(source + "/Docs/letters/old", 1'000'000'000);

    configure({{source + "/Docs", FVSourceMode::Backup},
               {source + "/single.txt", FVSourceMode::Backup},
               {source + "/missing", FVSourceMode::Backup},
               {source + "/disabled", FVSourceMode::Disabled}},
              defaults());

    auto result = run();
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("\nSync finished successfully.\nChecked "), std::string::npos) << result.out;
    // Through a pipe: one plain line per source item, no control codes.
    EXPECT_NE(result.out.find("\nBacking up Docs…\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find('\033'), std::string::npos) << result.out;

    EXPECT_EQ(readFile(destination + "/single.txt"), "one file as a source");
    EXPECT_EQ(differences(source + "/Docs/", destination + "/Docs/"), "");

    FVConfiguration saved = readBack();
    ASSERT_EQ(saved.sources.size(), 4u);
    EXPECT_TRUE(saved.sources[0]->value("lastBackupDate").has_value());
    EXPECT_EQ(saved.sources[1]->integerValue("updatedFilesCount"), 1);
    EXPECT_GE(saved.sources[0]->integerValue("totalBytesCopied"), 3'000'000);
    // A missing source was not backed up: it keeps no date of a backup, only that of the attempt.
    EXPECT_FALSE(saved.sources[2]->value("lastBackupDate").has_value());
    EXPECT_TRUE(saved.sources[2]->value("lastUnreadableDate").has_value());
    EXPECT_FALSE(saved.sources[3]->value("lastBackupDate").has_value());

    std::string log = readFile(logPath());
    EXPECT_NE(log.find("Configuration: Default; Ignore changes to extended attributes; Threads: 2;"),
              std::string::npos);
    EXPECT_NE(log.find("Source: " + source + "/missing (UNAVAILABLE AND NOT UPDATED)."), std::string::npos);
    EXPECT_NE(log.find("Sync finished (Duration: "), std::string::npos);

    // Nothing changed: a second run, on a terminal this time, copies nothing; its progress is one
    // line rewritten in place and ended before the outcome.
    auto again = runProcess({"/usr/bin/script", "-qec", std::string(FERROVANE_EXECUTABLE) + " '" + destination +
                             "' -noUserNotifications", "/dev/null"},
                            environment());
    ASSERT_EQ(again.exitStatus, 0) << again.out;
    EXPECT_EQ(readBack().sources[0]->integerValue("updatedFilesCount"), 0);
    EXPECT_NE(again.out.find("\rBacking up "), std::string::npos) << again.out;
    // Warnings about the machine (no logind here) may come between the two.
    const size_t ended = again.out.find("\033[K\r\n"), outcome = again.out.find("\r\nSync finished successfully.");
    EXPECT_LT(ended, outcome) << again.out;
    EXPECT_NE(outcome, std::string::npos) << again.out;

    // A terminal that cannot redraw gets plain lines, and a C locale ASCII only.
    writeFile(source + "/single.txt", "changed");
    auto plain = runProcess({"/usr/bin/script", "-qec", std::string(FERROVANE_EXECUTABLE) + " '" + destination +
                             "' -noUserNotifications", "/dev/null"},
                            environment({{"TERM", "dumb"}, {"LC_ALL", "C"}}));
    ASSERT_EQ(plain.exitStatus, 0) << plain.out;
    EXPECT_NE(plain.out.find("\r\nBacking up Docs...\r\n"), std::string::npos) << plain.out;
    EXPECT_EQ(plain.out.find('\033'), std::string::npos) << plain.out;
    EXPECT_TRUE(std::all_of(plain.out.begin(), plain.out.end(), [](char c) { return (c & 0x80) == 0; })) << plain.out;
}

TEST_F(BackupRun, ExcludedItemsLeaveTheMirrorForTheArchiveAndTheRestStaysExact) {
    const std::string tag = "Signature: 8a477f597d28d172789f06886806bc55\n";
    buildTree(source, {{"Docs/a.txt", "a"}, {"Docs/x.tmp", "tmp"}, {"Docs/web/node_modules/m.js", "m"},
                       {"Docs/web/build/out.o", "o"}, {"Docs/web/index.html", "i"}, {"Docs/src/app/cache/c", "c"},
                       {"Docs/src/app/keep", "k"}, {"Docs/src/cache/kept", "not two levels down"},
                       {"Docs/thumbs/CACHEDIR.TAG", tag}, {"Docs/thumbs/t.png", "t"}, {"Docs/big.iso", "iso"},
                       {"Docs/old.txt", "old"}, {"Docs/notes.bak", "bak"}});
    // Marked nodump where the file system lets us.
    FVFd iso(open((source + "/Docs/big.iso").c_str(), O_RDONLY));
    int flags = 0;
    const bool nodump = ioctl(iso.get(), FS_IOC_GETFLAGS, &flags) == 0 &&
                        (flags |= FS_NODUMP_FL, ioctl(iso.get(), FS_IOC_SETFLAGS, &flags) == 0);
    // Set up before the exclusions: the first run backs everything up.
    configure({{source + "/Docs", FVSourceMode::Backup}}, defaults());
    ASSERT_EQ(run().exitStatus, 0);
    ASSERT_TRUE(exists(destination + "/Docs/thumbs/t.png"));

    writeFile(dir / "excludes", "# build output\n\n**/build\nsrc/*/cache\n");
    for (const std::vector<std::string>& change :
         {std::vector<std::string>{"exclude", "*.tmp"}, {"exclude-from", dir / "excludes"},
          {"add", "node_modules", "--mode", "exclude-name"}, {"set", "excludeCacheFolders", "yes"},
          {"set", "excludeNodumpItems", "yes"}}) {
        std::vector<std::string> args = {"config", destination};
        args.insert(args.end(), change.begin(), change.end());
        auto changed = ferrovane(args);
        ASSERT_EQ(changed.exitStatus, 0) << changed.err;
    }
    auto second = run();
    ASSERT_EQ(second.exitStatus, 0) << second.out << second.err;

    // The mirror is the source without what is excluded (rsync's filters say the same here),
    // and each excluded item went to the archive, byte for byte.
    std::vector<std::string> rsync = {"/usr/bin/rsync", "-aHAXnc", "--delete", "--delete-excluded", "--itemize-changes"};
    for (const char* filter : {"*.tmp", "node_modules", "build/", "/src/*/cache", "/thumbs/t.png"})
        rsync.push_back(std::string("--exclude=") + filter);
    if (nodump) rsync.push_back("--exclude=big.iso");
    rsync.insert(rsync.end(), {source + "/Docs/", destination + "/Docs/"});
    auto compared = runProcess(rsync);
    EXPECT_EQ(compared.out + compared.err, "");
    const std::vector<std::string> stamps = listFolder(destination + "/__removed");
    ASSERT_EQ(stamps.size(), 1u);
    const std::string removed = destination + "/__removed/" + stamps[0] + "/Docs";
    EXPECT_EQ(readFile(removed + "/x.tmp"), "tmp");
    EXPECT_EQ(readFile(removed + "/web/node_modules/m.js"), "m");
    EXPECT_EQ(readFile(removed + "/web/build/out.o"), "o");
    EXPECT_EQ(readFile(removed + "/src/app/cache/c"), "c");
    EXPECT_EQ(readFile(removed + "/thumbs/t.png"), "t");
    EXPECT_EQ(exists(removed + "/big.iso"), nodump);

    // The next run has nothing to do.
    const std::string before = treeDigest(destination + "/Docs");
    auto third = run();
    ASSERT_EQ(third.exitStatus, 0) << third.out;
    EXPECT_EQ(readBack().sources[0]->integerValue("updatedFilesCount"), 0);
    EXPECT_EQ(listFolder(destination + "/__removed"), stamps);
    EXPECT_EQ(treeDigest(destination + "/Docs"), before);

    // Where removed items are not kept, an item excluded now, by path or by pattern, is
    // archived all the same: its backup may be its only copy.
    ASSERT_EQ(ferrovane({"config", destination, "set", "moveDeletedFiles", "no"}).exitStatus, 0);
    ASSERT_EQ(ferrovane({"config", destination, "add", source + "/Docs/old.txt", "--mode", "exclude"}).exitStatus, 0);
    ASSERT_EQ(ferrovane({"config", destination, "exclude", "*.bak"}).exitStatus, 0);
    ASSERT_EQ(run().exitStatus, 0);
    const std::vector<std::string> later = listFolder(destination + "/__removed");
    ASSERT_EQ(later.size(), 2u);
    for (const char* name : {"old.txt", "notes.bak"}) {
        EXPECT_FALSE(exists(destination + "/Docs/" + name));
        EXPECT_EQ(readFile(destination + "/__removed/" + later[1] + "/Docs/" + name), readFile(source + "/Docs/" + name));
    }
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
    // Both end with the same counts, the run's also in the log: what it did, the dry run's what
    // it would do.
    EXPECT_EQ(summary(dry.out), "Checked 7 items, would copy 2 (20 bytes), archive 3, delete 0, 0 errors") << dry.out;
    EXPECT_EQ(summary(second.out), "Checked 7 items, copied 2 (20 bytes), archived 3, deleted 0, 0 errors");
    EXPECT_NE(readFile(logPath()).find(summary(second.out) + " in "), std::string::npos);

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
    EXPECT_NE(second.err.find("ferrovane: error: Not removing the contents of " + destination + "/Volume"),
              std::string::npos)
        << second.err;
    EXPECT_EQ(summary(second.out), "Checked 2 items, copied 1 (3 bytes), archived 0, deleted 1, 1 error") << second.out;
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
    EXPECT_NE(result.err.find("ferrovane: warning: This run is not recorded"), std::string::npos) << result.err;
    EXPECT_EQ(differences(source + "/Docs/", destination + "/Docs/"), "");
    const std::string log = readFile(logPath());
    EXPECT_EQ(log.find("WARNING: This run is not recorded"), log.rfind("WARNING: This run is not recorded"));
    EXPECT_NE(log.find("WARNING: This run is not recorded"), std::string::npos);
    EXPECT_EQ(lastAttempt().outcome, FVJobOutcome::Warnings);
    EXPECT_EQ(lastAttempt().message.rfind("This run is not recorded", 0), 0u) << lastAttempt().message;
}

TEST_F(BackupRun, ScriptsGetJsonSummariesProgressLinesAndVersionedJsonFromEveryCommand) {
    buildTree(source, {{"Docs/a.txt", "alpha"}, {"Docs/b.txt", "beta"}});
    PlistDict options = identified();
    options.set("moveChangedFiles", int64_t{1});
    configure({{source + "/Docs", FVSourceMode::Backup}}, options);

    // One JSON object a line: the progress steps, then the summary.
    auto stream = run({"--progress=json"});
    ASSERT_EQ(stream.exitStatus, 0) << stream.err;
    std::string array = stream.out;
    for (size_t at = array.find('\n'); at + 1 < array.size(); at = array.find('\n', at + 1)) array[at] = ',';
    EXPECT_EQ(jsonQuery("[" + array + "]", "sorted(set((x['formatVersion'], x['type']) for x in d[:-1])), d[-1]['type'], "
                                           "d[-1]['copied'], d[-1]['checked']"),
              "([(1, 'progress')], 'summary', 2, 3)") << stream.out;

    writeFile(source + "/Docs/a.txt", "alpha 2");
    auto json = run({"--json"});
    ASSERT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 1) << json.out;
    EXPECT_EQ(jsonQuery(json.out, "d['formatVersion'], d['outcome'], d['dryRun'], d['copied'], d['bytesCopied'], "
                                  "d['archived'], d['deleted'], d['errors'], d['stamp'] == sorted(__import__('os')"
                                  ".listdir('" + destination + "/__changed'))[-1]"),
              "(1, 'finished', False, 1, 7, 1, 0, [], True)") << json.out;

    writeFile(source + "/Docs/a.txt", "alpha 3");
    auto quiet = run({"-q"});
    EXPECT_EQ(quiet.exitStatus, 0);
    EXPECT_EQ(quiet.out, "");

    writeFile(source + "/Docs/a.txt", "alpha 4");
    fs::remove(source + "/Docs/b.txt");
    auto verbose = run({"-v"});
    EXPECT_NE(verbose.out.find("\nCopied: " + source + "/Docs/a.txt\n"), std::string::npos) << verbose.out;
    EXPECT_NE(verbose.out.find("\nArchived: " + destination + "/Docs/b.txt\n"), std::string::npos) << verbose.out;

    // Every command's JSON: versioned, ASCII, and its times in ISO 8601 with their offset.
    const std::string times =
        "(lambda f: f(f, d))(lambda f, x: [v for k, v in x.items() if k in ('time', 'started', 'finished', "
        "'modified', 'lastBackup', 'lastGoodRun', 'nextRun') and isinstance(v, str)] + sum((f(f, v) for v in "
        "x.values()), []) if isinstance(x, dict) else sum((f(f, v) for v in x), []) if isinstance(x, list) else [])";
    const std::string check = "d['formatVersion'], len(" + times + ") > 0, all(__import__('re').fullmatch("
                              "r'\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d[+-]\\d\\d:\\d\\d', t) for t in " + times + ")";
    const std::vector<std::vector<std::string>> commands = {
        {"runs", destination},          {"search", destination, "a.txt"}, {"versions", destination, source + "/Docs/a.txt"},
        {"ls", destination, source + "/Docs"}, {"config", destination, "show"}};
    for (std::vector<std::string> command : commands) {
        command.push_back("--json");
        auto listed = ferrovane(command);
        EXPECT_EQ(jsonQuery(listed.out, check), "(1, True, True)") << command[0] << listed.out << listed.err;
        EXPECT_TRUE(std::all_of(listed.out.begin(), listed.out.end(), [](char c) { return (c & 0x80) == 0; }));
    }
    EXPECT_EQ(jsonQuery(ferrovane({"verify", destination, "--json"}).out, "d['formatVersion']"), "1");
    EXPECT_EQ(jsonQuery(ferrovane({"config", destination, "schedule", "--json"}).out, "d['formatVersion']"), "1");
    EXPECT_EQ(jsonQuery(ferrovane({"check-overdue", "--json", "--no-notifications"}).out, "d['formatVersion']"), "1");
}

TEST_F(BackupRun, ASignalAtAnyMomentEndsWith128PlusItsNumberAndLeavesNothingHalfWritten) {
    makeManyFiles();
    configure({{source + "/Many", FVSourceMode::Backup}}, identified());
    const std::string configuration = FVConfigurationFile::formattedPath(destination);
    struct Case {
        const char* moment;  // held there until the signal has been taken
        std::vector<std::string> args;
        int signal;
        bool cancels;  // false: the signal came after the copy, whose results are saved
    };
    const std::vector<Case> cases = {
        {"space-checked", {destination, "-noUserNotifications"}, SIGINT, true},
        {"space-checked", {destination, "-n"}, SIGTERM, true},
        {"between-files", {destination, "-noUserNotifications"}, SIGINT, true},
        {"saving-results", {destination, "-noUserNotifications"}, SIGTERM, false},
        {"file-verified", {"verify", destination}, SIGINT, true},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(std::string(c.moment) + " " + c.args[1]);
        const std::string before = readFile(configuration);
        TestHooks hooks(dir / ("hooks" + std::to_string(i)));
        hooks.arm(c.moment);
        hooks.arm("signal-taken", "", false);
        pid_t pid = startInBackground(hooks, c.args);
        ASSERT_TRUE(hooks.waitUntilReached(c.moment));
        kill(pid, c.signal);
        ASSERT_TRUE(hooks.waitUntilReached("signal-taken"));
        hooks.release(c.moment);
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 128 + c.signal);
        for (const auto& e : fs::recursive_directory_iterator(destination))
            EXPECT_EQ(e.path().filename().string().rfind(".ferrovane-tmp", 0), std::string::npos) << e.path();
        if (c.args[0] == "verify") continue;
        const std::string out = readFile(dir / "out.txt");
        if (c.cancels) {
            EXPECT_NE(out.find("Backup stopped.\nStopped: checked "), std::string::npos) << out;
            EXPECT_EQ(readFile(configuration), before) << "a cancelled run saves no results";
            if (c.args[1] != "-n") {
                EXPECT_EQ(lastAttempt().outcome, FVJobOutcome::Stopped);
            }
        } else {
            EXPECT_TRUE(readBack().sources[0]->value(FVSourceKey::lastBackupDate));
            EXPECT_EQ(lastAttempt().outcome, FVJobOutcome::Finished);
            EXPECT_EQ(differences(source + "/Many/", destination + "/Many/"), "");
        }
    }
}

TEST_F(BackupRun, WhatTheMachineLacksIsOneWarningEachAndNoFailure) {
    // An ordinary user without a home has no log file; this machine has no logind either.
    writeFile(source + "/a.txt", "a");
    configure({{source, FVSourceMode::Backup}}, defaults());
    if (geteuid() == 0) {
        fs::permissions(dir.path(), fs::perms::all);
        fs::permissions(destination, fs::perms::all);
    }
    auto homeless = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"/usr/bin/env", "HOME=/nonexistent", FERROVANE_EXECUTABLE});
        if (geteuid() == 0) args.insert(args.begin(), {"/usr/sbin/runuser", "-u", "nobody", "--"});
        return runProcess(args, {{"DISPLAY", std::nullopt}, {"FERROVANE_LOG_FILE", std::nullopt},
                                 {"XDG_STATE_HOME", std::nullopt}});
    };
    const std::vector<std::vector<std::string>> commands = {
        {destination, "-noUserNotifications"}, {"verify", destination},
        {"restore", destination, source + "/a.txt", "--to", destination + "-restored"}};
    makeDirs(destination + "-restored");
    fs::permissions(destination + "-restored", fs::perms::all);
    for (const auto& command : commands) {
        auto result = homeless(command);
        EXPECT_EQ(result.exitStatus, 0) << command[0] << ": " << result.err;
        std::istringstream lines(result.err);
        int logWarnings = 0, others = 0;
        // Besides verify's progress, only warnings.
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(line.find("ERROR"), std::string::npos) << line;
            EXPECT_EQ(line.find("ferrovane: error"), std::string::npos) << line;
            if (line.find("the run log could not be written (cannot create /nonexistent/") != std::string::npos &&
                line.find("FERROVANE_LOG_FILE") != std::string::npos)
                ++logWarnings;
            else if (line.starts_with("ferrovane: ") && line.find("sleep prevention is not available") == std::string::npos)
                ++others;
        }
        EXPECT_EQ(logWarnings, 1) << command[0] << ": " << result.err;
        EXPECT_EQ(others, 0) << command[0] << ": " << result.err;
    }
    EXPECT_EQ(readFile(destination + "-restored/a.txt"), "a");
}
