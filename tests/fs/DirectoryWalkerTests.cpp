// The tree walk reaches every entry once, through folder descriptors: past PATH_MAX, and never
// through a folder swapped for a link while it runs.

#include "fs/FVDirectoryWalker.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

struct Seen {
    size_t order;
    size_t level;
    bool directory;
    std::string relative;
};

// Walks the whole tree; errors are collected by path.
std::map<std::string, Seen> walkAll(const std::string& root, std::map<std::string, int>* errors = nullptr,
                                    const std::string& skip = "") {
    std::map<std::string, Seen> seen;
    FVDirectoryWalker walker(root);
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (entry->error != 0) {
            if (errors) (*errors)[entry->path] = entry->error;
            continue;
        }
        EXPECT_FALSE(seen.count(entry->path)) << entry->path << " returned twice";
        seen[entry->path] = {seen.size(), entry->level, entry->isDirectory(), std::string(entry->relativePath())};
        EXPECT_EQ(entry->path.substr(entry->path.size() - entry->name().size()), entry->name());
        if (!skip.empty() && entry->name() == skip) walker.skipChildren();
    }
    return seen;
}

}  // namespace

TEST(DirectoryWalker, VisitsEachEntryOnceFoldersFirstWithoutFollowingLinks) {
    TempDir dir;
    const std::string root = dir / "root";
    buildTree(root, {{"a/b/file", "x"}, {"empty/", ""}, {"skipped/inner/", ""}, {"top", "y"}});
    buildTree(dir / "outside", {{"secret", "s"}});
    ASSERT_EQ(symlink((dir / "outside").c_str(), (root + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0600), 0);

    std::map<std::string, int> errors;
    auto seen = walkAll(root, &errors, "skipped");
    EXPECT_TRUE(errors.empty());
    std::vector<std::string> paths;
    for (const auto& [path, info] : seen) paths.push_back(path.substr(root.size()));
    EXPECT_EQ(paths, (std::vector<std::string>{"", "/a", "/a/b", "/a/b/file", "/empty", "/fifo", "/link",
                                               "/skipped", "/top"}));
    EXPECT_EQ(seen[root].level, 0u);
    EXPECT_EQ(seen[root].relative, "");
    EXPECT_EQ(seen[root + "/a/b/file"].level, 3u);
    EXPECT_EQ(seen[root + "/a/b/file"].relative, "/a/b/file");
    EXPECT_FALSE(seen[root + "/link"].directory);

    // Pre-order: a folder comes before anything inside it.
    EXPECT_LT(seen[root + "/a"].order, seen[root + "/a/b"].order);
    EXPECT_LT(seen[root + "/a/b"].order, seen[root + "/a/b/file"].order);

    // Told the types alone, the walk still tells every kind apart and enters the same folders.
    std::map<std::string, mode_t> fullTypes, listedTypes;
    for (auto* types : {&fullTypes, &listedTypes}) {
        FVDirectoryWalker typed(root);
        typed.setTypesOnly(types == &listedTypes);
        while (const auto* entry = typed.next()) (*types)[entry->path] = entry->st.st_mode & S_IFMT;
    }
    EXPECT_EQ(fullTypes, listedTypes);
    EXPECT_EQ(listedTypes[root + "/fifo"], static_cast<mode_t>(S_IFIFO));
    EXPECT_EQ(listedTypes[root + "/link"], static_cast<mode_t>(S_IFLNK));

    // A root given with a trailing slash names its entries without a doubled one.
    auto slashed = walkAll(root + "/");
    EXPECT_TRUE(slashed.count(root + "/a/b/file"));
    EXPECT_EQ(slashed[root + "/a/b/file"].relative, "/a/b/file");
}

TEST(DirectoryWalker, RootsThatAreMissingOrFilesAreOneEntry) {
    TempDir dir;
    writeFile(dir / "file", "x");
    std::map<std::string, int> errors;
    EXPECT_TRUE(walkAll(dir / "missing", &errors).empty());
    EXPECT_EQ(errors[dir / "missing"], ENOENT);
    auto seen = walkAll(dir / "file");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_FALSE(seen.begin()->second.directory);
}

// 80 levels of 60-byte names: deeper than PATH_MAX and than the descriptors the walk keeps open,
// so the way back up reopens folders; the siblings left at the top must still be visited.
TEST(DirectoryWalker, WalksBelowPathMaxAndBackUpThroughManyLevels) {
    TempDir dir;
    const std::string root = dir / "root";
    makeDirs(root);
    const std::string bottom = makeDeepFile(root, "");
    for (const char* sibling : {"zz1", "zz2"}) writeFile(root + "/" + sibling, "z");

    std::map<std::string, int> errors;
    auto seen = walkAll(root, &errors);
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(seen.size(), 1u + 80u + 1u + 2u);
    ASSERT_GT(bottom.size(), static_cast<size_t>(PATH_MAX));
    ASSERT_TRUE(seen.count(bottom));
    EXPECT_EQ(seen[bottom].level, 81u);
    EXPECT_TRUE(seen.count(root + "/zz1") && seen.count(root + "/zz2"));
}

TEST(DirectoryWalker, AFolderSwappedForALinkDuringTheWalkIsReportedNotFollowed) {
    TempDir dir;
    const std::string root = dir / "root";
    makeDirs(root + "/a");
    writeFile(root + "/a/inside", "i");
    makeDirs(dir / "outside");
    writeFile(dir / "outside/secret", "s");

    FVDirectoryWalker walker(root);
    std::vector<std::string> paths;
    int swapError = 0;
    while (const auto* entry = walker.next()) {
        if (entry->error != 0) {
            EXPECT_EQ(entry->path, root + "/a");
            swapError = entry->error;
            continue;
        }
        paths.push_back(entry->path);
        if (entry->path == root + "/a") {
            // Between the folder's examination and its entry: the classic swap.
            ASSERT_EQ(rename((root + "/a").c_str(), (dir / "moved").c_str()), 0);
            ASSERT_EQ(symlink((dir / "outside").c_str(), (root + "/a").c_str()), 0);
        }
    }
    EXPECT_TRUE(swapError == ELOOP || swapError == ENOTDIR) << swapError;
    EXPECT_EQ(paths, (std::vector<std::string>{root, root + "/a"}));
}
