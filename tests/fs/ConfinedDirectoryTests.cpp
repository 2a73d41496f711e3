// Changes inside a destination never follow a symbolic link out of it.

#include "fs/FVConfinedDirectory.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <fcntl.h>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

TEST(ConfinedDirectory, RelativePathsStayBelowTheRoot) {
    FVConfinedDirectory root("/work/dest/");
    EXPECT_EQ(root.relativePath("/work/dest"), "");
    EXPECT_EQ(root.relativePath("/work/dest/a/b"), "a/b");
    EXPECT_FALSE(root.relativePath("/work/destination/a"));
    EXPECT_FALSE(root.relativePath("/work/dest/a/../../etc"));
    EXPECT_FALSE(root.relativePath("/work"));
    EXPECT_EQ(FVConfinedDirectory("/").relativePath("/etc/x"), "etc/x");
}

TEST(ConfinedDirectory, CreatesMissingFoldersButNeverThroughALink) {
    TempDir dir;
    makeDirs(dir / "dest");
    makeDirs(dir / "outside");
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "dest/planted").c_str()), 0);
    FVConfinedDirectory root(dir / "dest");
    ASSERT_EQ(root.openError(), 0);

    int error = 0;
    bool created = false;
    FVFd folder = root.openFolder("a/b/c", true, &error, &created);
    ASSERT_TRUE(folder.valid()) << strerror(error);
    EXPECT_TRUE(created);
    EXPECT_TRUE(exists(dir / "dest/a/b/c"));
    folder = root.openFolder("a/b", true, &error, &created);
    EXPECT_TRUE(folder.valid());
    EXPECT_FALSE(created);

    EXPECT_FALSE(root.openFolder("planted/x", true, &error).valid());
    EXPECT_TRUE(error == ELOOP || error == ENOTDIR) << strerror(error);
    EXPECT_FALSE(root.openFolder("planted", false, &error).valid());
    EXPECT_FALSE(exists(dir / "outside/x"));

    EXPECT_FALSE(FVConfinedDirectory(dir / "missing").openFolder("a", true, &error).valid());
    EXPECT_EQ(error, ENOENT);
    EXPECT_FALSE(exists(dir / "missing"));
}

TEST(ConfinedDirectory, MovesAndRemovesWithoutFollowingLinks) {
    TempDir dir;
    buildTree(dir.path(), {{"dest/tree/deep/er/f", "x"}, {"outside/keep", "x"}});
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "dest/tree/deep/link").c_str()), 0);
    FVConfinedDirectory root(dir / "dest");

    EXPECT_EQ(root.moveItem("tree/deep/er/f", "archive/2026/tree/f", true), 0);
    EXPECT_EQ(readFile(dir / "dest/archive/2026/tree/f"), "x");
    // A move that fails takes back the folders it made, and only those.
    EXPECT_EQ(root.moveItem("tree/missing", "archive/2027/tree/f", true, true), ENOENT);
    EXPECT_EQ(root.moveItem("tree/missing", "archive/2026/other/f", true, true), ENOENT);
    EXPECT_FALSE(exists(dir / "dest/archive/2027"));
    EXPECT_FALSE(exists(dir / "dest/archive/2026/other"));
    EXPECT_TRUE(exists(dir / "dest/archive/2026/tree"));
    int error = root.moveItem("tree/deep/link/keep", "stolen", false);
    EXPECT_TRUE(error == ELOOP || error == ENOTDIR) << strerror(error);
    EXPECT_EQ(root.removeItem("tree"), 0);
    EXPECT_FALSE(exists(dir / "dest/tree"));
    EXPECT_EQ(readFile(dir / "outside/keep"), "x");
    EXPECT_NE(root.removeItem("../outside"), 0);
    EXPECT_NE(root.removeItem("tree/../../outside"), 0);
    EXPECT_EQ(readFile(dir / "outside/keep"), "x");
}
