// The search (from the record of runs and by walking) and the controller behind the search sheet, on real trees.

#include "search/FVDestinationSearch.h"
#include "search/FVDirectorySearchBlockOperation.h"
#include "manifest/FVManifestEntry.h"
#include "support/RecordedRun.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class RecordingDelegate : public FVDirectorySearchBlockOperationDelegate {
public:
    std::function<void(const std::string&)> onMatch;
    std::function<void()> onFinish;
    std::vector<std::string> matches;
    int finishCount = 0;
    std::set<std::thread::id> threads;

    void didFindMatch(const std::string& path) override {
        threads.insert(std::this_thread::get_id());
        matches.push_back(path);
        if (onMatch) onMatch(path);
    }
    void didFinish() override {
        threads.insert(std::this_thread::get_id());
        ++finishCount;
        if (onFinish) onFinish();
    }
};

// Runs the posted work at once on the posting thread: the walk then waits for each message.
class ImmediateQueue : public FVMainQueue {
public:
    void post(std::function<void()> work) override { work(); }
};

std::set<std::string> relativeTo(const std::string& root, const std::vector<std::string>& paths) {
    std::set<std::string> out;
    for (const auto& p : paths) out.insert(p.substr(root.size() + 1));
    return out;
}

// One walk on a background thread, its messages delivered on this thread's run loop.
std::shared_ptr<RecordingDelegate> search(const std::string& root, const std::string& text) {
    FVRunLoop loop;
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->onFinish = [&] { loop.stop(0); };
    FVDirectorySearchBlockOperation operation(loop, root, text, delegate);
    std::thread worker([&] { operation.main(); });
    loop.run();
    worker.join();
    EXPECT_EQ(delegate->finishCount, 1);
    EXPECT_EQ(delegate->threads, std::set<std::thread::id> {std::this_thread::get_id()});
    return delegate;
}

void touch(const std::string& path) {
    makeDirs(path.substr(0, path.rfind('/')));
    writeFile(path, "x");
}

}  // namespace

TEST(DirectorySearchTest, PrunesHiddenAndSystemFoldersAndBundleContents) {
    TempDir dir;
    // The searched folder itself is neither a candidate nor pruned, whatever its name.
    std::string root = dir / ".report";
    for (const char* name : {"report.txt", ".hidden/report.txt", ".report.txt", "src/Library/report.txt",
                             "src/System/report.txt", "src/private/report.txt", "src/LibraryX/report.txt",
                             "Report.app/Contents/report.txt", "reports/inner report",
                             // The destination's own folders are no content: the record of runs
                             // is not searched, archive folders only inside.
                             "__runs/report.fvmanifest", "__changed/report 1/src/report.txt",
                             "__removed/2026 report/report.txt", "__removed/report"})
        touch(root + "/" + name);
    ASSERT_EQ(symlink("/nonexistent/target", (root + "/dangling report").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/fifo report").c_str(), 0600), 0);

    auto found = search(root, "report");

    EXPECT_EQ(relativeTo(root, found->matches),
              (std::set<std::string> {"report.txt", "src/LibraryX/report.txt", "Report.app", "reports",
                                      "reports/inner report", "dangling report", "__changed/report 1/src/report.txt",
                                      "__removed/2026 report/report.txt"}));
}

TEST(DirectorySearchTest, MatchesEveryTermInAnyCaseAndInvalidNamesOnTheirBytes) {
    TempDir dir;
    for (const char* name : {"Annual REPORT 2021.pdf", "report.pdf", "2021 \xC3\x84rger Report", "bad\xFFreport"})
        touch(dir / name);
    struct Case {
        const char* text;
        std::set<std::string> expected;
    };
    for (const auto& c : std::vector<Case> {
             {"report 2021", {"Annual REPORT 2021.pdf", "2021 \xC3\x84rger Report"}},
             {"2021 REPORT", {"Annual REPORT 2021.pdf", "2021 \xC3\x84rger Report"}},
             {"\xC3\xA4rger", {"2021 \xC3\x84rger Report"}},  // non-ASCII letters fold too
             {"d\xFFr", {"bad\xFFreport"}},
         })
        EXPECT_EQ(relativeTo(dir.path(), search(dir.path(), c.text)->matches), c.expected) << c.text;
}

TEST(DirectorySearchTest, SearchFolderIsOpenedThroughALinkButLinksInsideAreNotFollowed) {
    TempDir dir;
    touch(dir / "real/inside/plain file");
    ASSERT_EQ(symlink("real", (dir / "link").c_str()), 0);
    ASSERT_EQ(symlink("..", (dir / "real/inside/up").c_str()), 0);
    EXPECT_EQ(search(dir / "link", "plain")->matches, std::vector<std::string> {dir / "link/inside/plain file"});

    EXPECT_TRUE(search(dir / "missing", "anything")->matches.empty());
    EXPECT_TRUE(search(dir / "real/inside/plain file", "plain")->matches.empty());
}

// Cancelled before it starts or at its first match, or with its folder gone under it, a walk
// stops there and still finishes once.
TEST(DirectorySearchTest, ACancelOrAVanishingFolderEndsTheWalkThereAndItStillFinishesOnce) {
    TempDir dir;
    for (int i = 0; i < 50; ++i) touch(dir / ("match " + std::to_string(i)));
    for (int i = 0; i < 5; ++i) touch(dir / ("dest/folder" + std::to_string(i) + "/match"));
    ImmediateQueue queue;

    auto cancelledEarly = std::make_shared<RecordingDelegate>();
    FVDirectorySearchBlockOperation early(queue, dir.path(), "match", cancelledEarly);
    early.cancel();
    early.main();
    EXPECT_TRUE(cancelledEarly->matches.empty());
    EXPECT_EQ(cancelledEarly->finishCount, 1);

    auto cancelledMidway = std::make_shared<RecordingDelegate>();
    FVDirectorySearchBlockOperation midway(queue, dir.path(), "match", cancelledMidway);
    cancelledMidway->onMatch = [&](const std::string&) { midway.cancel(); };
    midway.main();
    EXPECT_EQ(cancelledMidway->matches.size(), 1u);
    EXPECT_EQ(cancelledMidway->finishCount, 1);

    auto vanished = std::make_shared<RecordingDelegate>();
    vanished->onMatch = [&](const std::string&) { std::filesystem::remove_all(dir / "dest"); };
    FVDirectorySearchBlockOperation(queue, dir / "dest", "match", vanished).main();
    EXPECT_EQ(vanished->matches.size(), 1u);
    EXPECT_EQ(vanished->finishCount, 1);
}

namespace {

class RecordingObserver : public FVDestinationSearchObserver {
public:
    explicit RecordingObserver(FVRunLoop& loop) : loop_(loop) {}
    void searchProgressDidChange(bool searching) override {
        if (!searching) loop_.stop(0);
    }

private:
    FVRunLoop& loop_;
};

}  // namespace

TEST(DestinationSearchTest, StopsAtTheCapAndRegroupsExactlyThoseMatches) {
    TempDir dir;
    for (int i = 0; i < 300; ++i) touch(dir / ("note " + std::to_string(i)));
    touch(dir / "__changed/S/note 7");  // a second version of one of them
    FVRunLoop loop;
    RecordingObserver observer(loop);
    auto search = FVDestinationSearch::create(loop);
    search->setObserver(&observer);
    search->setSearchFolderPath(dir.path());

    search->searchFieldChanged("NOTE");
    EXPECT_TRUE(search->isSearching());
    loop.run();

    EXPECT_FALSE(search->isSearching());
    EXPECT_TRUE(search->reachedMatchLimit());
    ASSERT_EQ(search->matchPaths().size(), FVDestinationSearch::kMaximumMatchCount);
    size_t versions = 0;
    for (const auto& result : search->searchResults()) versions += result.fullpaths.size();
    EXPECT_EQ(versions, FVDestinationSearch::kMaximumMatchCount);
}

TEST(DestinationSearchTest, ShortTextClearsWithoutSearching) {
    TempDir dir;
    touch(dir / "\xC3\xA4" "bc");
    FVRunLoop loop;
    RecordingObserver observer(loop);
    auto search = FVDestinationSearch::create(loop);
    search->setObserver(&observer);
    search->setSearchFolderPath(dir.path());
    search->searchFieldChanged("\xC3\xA4" "b");  // three bytes, two characters
    EXPECT_TRUE(search->isSearching());
    loop.run();
    ASSERT_EQ(search->searchResults().size(), 1u);

    search->searchFieldChanged("bc");

    EXPECT_FALSE(search->isSearching());
    EXPECT_TRUE(search->matchPaths().empty());
    EXPECT_TRUE(search->searchResults().empty());
}

namespace {

// A destination changed by hand as runs would change it, each "run" recorded as it stands: the
// mirror /Docs of the source /src/Docs, its archive folders, one manifest per stamp.
class RecordedDestination {
public:
    explicit RecordedDestination(std::string root) : root_(std::move(root)) {}

    void record(const std::string& stamp, FVManifestOutcome outcome = FVManifestOutcome::Complete) {
        recordRun(root_, stamp, {"/src/Docs"}, outcome);
    }
    // Moves a mirror item into a run's archive folder, as that run displaces it.
    void displace(const char* archive, const std::string& stamp, const std::string& relative) {
        std::string to = root_ + "/" + archive + "/" + stamp + relative;
        makeDirs(to.substr(0, to.rfind('/')));
        std::filesystem::rename(root_ + relative, to);
    }
    void write(const std::string& relative, const std::string& content) {
        makeDirs((root_ + relative).substr(0, (root_ + relative).rfind('/')));
        writeFile(root_ + relative, content);
    }
    std::string manifest(const std::string& stamp) const { return root_ + "/__runs/" + stamp + ".fvmanifest"; }

private:
    std::string root_;
};

const std::string kRun1 = "2026-11-01 10.00.00 +0000";
const std::string kRun2 = "2026-11-02 10.00.00 +0000";
const std::string kRun3 = "2026-11-03 10.00.00 +0000";
const std::string kRun4 = "2026-11-04 10.00.00 +0000";

// Three recorded runs that change, remove (a folder whole) and re-add files, with an archive of a
// run older than the record and items the search passes over.
void makeRecordedHistory(RecordedDestination& d) {
    d.write("/__changed/2026-10-01 10.00.00 +0000/Docs/a report.txt", "before the record");
    for (const char* name : {"/Docs/a report.txt", "/Docs/b report.txt", "/Docs/reports/c report.txt",
                             "/Docs/reports/d.txt", "/Docs/Library/e report.txt", "/Docs/.f report",
                             "/Docs/Tool.app/report"})
        d.write(name, name);
    d.record(kRun1);
    d.displace("__changed", kRun2, "/Docs/a report.txt");
    d.write("/Docs/a report.txt", "changed");
    d.displace("__removed", kRun2, "/Docs/reports");
    d.record(kRun2);
    d.write("/Docs/reports/c report.txt", "back again");
    d.displace("__removed", kRun3, "/Docs/b report.txt");
    d.displace("__changed", kRun3, "/Docs/Tool.app/report");
    d.write("/Docs/Tool.app/report", "new");
    d.record(kRun3);
}

struct Found {
    std::set<std::string> matches;
    std::vector<std::string> warnings;
};

// Each test keeps its displaced indexes in a cache of its own.
class RecordedSearchTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("XDG_CACHE_HOME", (cache / "").c_str(), 1); }
    void TearDown() override { unsetenv("XDG_CACHE_HOME"); }
    TempDir cache;
};

Found searchWithWarnings(const std::string& root, const std::string& text) {
    struct Delegate : RecordingDelegate {
        std::vector<std::string> warnings;
        void didWarn(const std::string& message) override { warnings.push_back(message); }
    };
    ImmediateQueue queue;
    auto delegate = std::make_shared<Delegate>();
    FVDirectorySearchBlockOperation(queue, root, text, delegate).main();
    EXPECT_EQ(delegate->finishCount, 1);
    return {relativeTo(root, delegate->matches), delegate->warnings};
}

// What the walk finds in the same destination without its record.
std::set<std::string> walked(const std::string& root, const std::string& text) {
    std::filesystem::rename(root + "/__runs", root + ".runs");
    auto found = search(root, text)->matches;
    std::filesystem::rename(root + ".runs", root + "/__runs");
    return relativeTo(root, found);
}

}  // namespace

TEST_F(RecordedSearchTest, AnswersAsTheWalkDoesButFromTheRecord) {
    TempDir dir;
    std::string root = dir / "dest";
    RecordedDestination d(root);
    makeRecordedHistory(d);
    // Not in the record: a search that reads the record does not see it inside a mirror folder,
    // but the mirror of a source since removed from the list is found as the walk finds it.
    touch(root + "/Docs/unrecorded report");
    touch(root + "/Old/old report");

    for (const char* text : {"report", "REPORTS", "c rep", "tool.app", "d.txt"}) {
        Found recorded = searchWithWarnings(root, text);
        std::set<std::string> expected = walked(root, text);
        expected.erase("Docs/unrecorded report");
        EXPECT_EQ(recorded.matches, expected) << text;
        EXPECT_TRUE(recorded.warnings.empty()) << text;
    }
    EXPECT_EQ(searchWithWarnings(root, "c report").matches,
              (std::set<std::string> {"Docs/reports/c report.txt", "__removed/" + kRun2 + "/Docs/reports/c report.txt"}));

    // What each run displaced is kept: later searches read no manifest but the newest.
    const std::set<std::string> expected = searchWithWarnings(root, "report").matches;
    std::string first = readFile(d.manifest(kRun1));
    ASSERT_GT(first.size(), 200u);
    for (size_t k = 40; k < 60; ++k) first[k] = char(~first[k]);
    writeFile(d.manifest(kRun1), first);
    Found cached = searchWithWarnings(root, "report");
    EXPECT_EQ(cached.matches, expected);
    EXPECT_TRUE(cached.warnings.empty()) << cached.warnings.front();
    // A kept list that was cut short is computed again, which now meets the damage.
    for (const auto& file : std::filesystem::recursive_directory_iterator(cache.path()))
        if (file.is_regular_file()) std::filesystem::resize_file(file.path(), file.file_size() - 1);
    Found recomputed = searchWithWarnings(root, "report");
    EXPECT_EQ(recomputed.matches, expected);
    EXPECT_EQ(recomputed.warnings.size(), 1u);
}

TEST_F(RecordedSearchTest, WhatTheRecordCannotTellIsWalked) {
    TempDir dir;
    std::string root = dir / "dest";
    RecordedDestination d(root);
    makeRecordedHistory(d);
    // A stopped run, and then a run that left no manifest: their archives are walked, and so is
    // the whole destination while the newest run has no complete manifest.
    d.displace("__removed", kRun4, "/Docs/a report.txt");
    d.record(kRun4, FVManifestOutcome::Stopped);
    d.write("/__changed/2026-11-05 10.00.00 +0000/Docs/g report", "no manifest");
    touch(root + "/Docs/unrecorded report");
    EXPECT_EQ(searchWithWarnings(root, "report").matches, walked(root, "report"));

    std::filesystem::remove_all(root + "/__changed/2026-11-05 10.00.00 +0000");
    std::filesystem::remove(root + "/Docs/unrecorded report");
    d.record("2026-11-06 10.00.00 +0000");
    d.write("/__removed/2026-11-05 10.00.00 +0000/Docs/h report", "after the stop");
    EXPECT_EQ(searchWithWarnings(root, "report").matches, walked(root, "report"));
}

TEST_F(RecordedSearchTest, DamagedManifestIsWalkedWithAWarningNeverWrongResults) {
    TempDir dir;
    std::string root = dir / "dest";
    RecordedDestination d(root);
    makeRecordedHistory(d);
    touch(root + "/Docs/unrecorded report");
    const std::set<std::string> all = walked(root, "report");
    for (const std::string& stamp : {kRun3, kRun2, kRun1}) {
        SCOPED_TRACE(stamp);
        std::string manifest = d.manifest(stamp);
        std::string bytes = readFile(manifest);
        std::string damaged = bytes;
        for (size_t k = 40; k < 60; ++k) damaged[k] = char(~damaged[k]);  // its end stays whole
        writeFile(manifest, damaged);

        Found found = searchWithWarnings(root, "report");

        ASSERT_FALSE(found.warnings.empty());
        EXPECT_NE(found.warnings.front().find("damaged"), std::string::npos) << found.warnings.front();
        // The newest manifest lists the mirror: without it everything is walked.
        std::set<std::string> expected = all;
        if (stamp != kRun3) expected.erase("Docs/unrecorded report");
        EXPECT_EQ(found.matches, expected);
        writeFile(manifest, bytes);
    }
}
