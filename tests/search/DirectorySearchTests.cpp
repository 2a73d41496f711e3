// The search walk and the controller behind the search sheet, on real trees.

#include "search/FVDestinationSearch.h"
#include "search/FVDirectorySearchBlockOperation.h"
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
                             "Report.app/Contents/report.txt", "reports/inner report"})
        touch(root + "/" + name);
    ASSERT_EQ(symlink("/nonexistent/target", (root + "/dangling report").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/fifo report").c_str(), 0600), 0);

    auto found = search(root, "report");

    EXPECT_EQ(relativeTo(root, found->matches),
              (std::set<std::string> {"report.txt", "src/LibraryX/report.txt", "Report.app", "reports",
                                      "reports/inner report", "dangling report"}));
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

TEST(DirectorySearchTest, CancellationStopsBeforeTheNextEntryAndStillFinishesOnce) {
    TempDir dir;
    for (int i = 0; i < 50; ++i) touch(dir / ("match " + std::to_string(i)));
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
}

TEST(DirectorySearchTest, DestinationVanishingDuringTheWalkEndsItQuietly) {
    TempDir dir;
    std::string root = dir / "dest";
    for (int i = 0; i < 5; ++i) touch(root + "/folder" + std::to_string(i) + "/report");
    ImmediateQueue queue;
    auto delegate = std::make_shared<RecordingDelegate>();
    delegate->onMatch = [&](const std::string&) { std::filesystem::remove_all(root); };

    FVDirectorySearchBlockOperation(queue, root, "report", delegate).main();

    EXPECT_EQ(delegate->matches.size(), 1u);
    EXPECT_EQ(delegate->finishCount, 1);
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
