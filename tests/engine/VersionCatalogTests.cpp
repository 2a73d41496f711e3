// Where a destination keeps the versions of a path under both placements of the mirror, and
// the order in which they are listed.

#include "engine/FVVersionCatalog.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

TEST(VersionCatalog, MapsOriginalAndDestinationPathsUnderBothPlacements) {
    FVVersionCatalog byName("/backup", {"/home/me/Documents", "/etc"}, true);
    EXPECT_EQ(byName.mirrorPath("/home/me/Documents/a/b.txt"), "/Documents/a/b.txt");
    EXPECT_EQ(byName.mirrorPath("/home/me/Documents"), "/Documents");
    EXPECT_EQ(byName.mirrorPath("/backup/__removed/2026-01-01 10.00.00 +0000/Documents/x"), "/Documents/x");
    EXPECT_EQ(byName.mirrorPath("/backup/Documents/x"), "/Documents/x");
    EXPECT_EQ(byName.mirrorPath("/home/me/Music/x"), std::nullopt);
    EXPECT_EQ(byName.originalPath("/Documents/x"), "/home/me/Documents/x");
    EXPECT_EQ(byName.originalPath("/etc/hosts"), "/etc/hosts");
    EXPECT_EQ(byName.originalPath("/Other/x"), std::nullopt);

    FVVersionCatalog byPath("/backup", {"/home/me/Documents", "/home/me/Documents/inner"}, false);
    EXPECT_EQ(byPath.mirrorPath("/home/me/Documents/inner/x"), "/home/me/Documents/inner/x");
    EXPECT_EQ(byPath.originalPath("/home/me/Documents/x"), "/home/me/Documents/x");
    EXPECT_EQ(byPath.sourceHolding("/home/me/Documents/inner/x"), "/home/me/Documents/inner");

    FVVersionCatalog whole("/mnt/backup", {"/"}, true);
    EXPECT_EQ(whole.mirrorPath("/etc/hosts"), "/etc/hosts");
    EXPECT_EQ(whole.originalPath("/etc/hosts"), "/etc/hosts");
    EXPECT_EQ(whole.sourceMirrorPath("/"), "");
}

TEST(VersionCatalog, ListsTheCurrentCopyThenArchivesByTheirTime) {
    TempDir dir;
    std::string d = dir.path();
    auto writeFile = [](const std::string& path, std::string_view content) {
        makeDirs(path.substr(0, path.rfind('/')));
        test::writeFile(path, content);
    };
    writeFile(d + "/docs/a.txt", "now");
    // Local times with offsets: 09:00 UTC, 09:30 UTC and 08:00 UTC.
    writeFile(d + "/__changed/2026-01-01 10.00.00 +0100/docs/a.txt", "second");
    writeFile(d + "/__removed/2026-01-01 09.30.00 +0000/docs/a.txt", "third");
    writeFile(d + "/__changed/2026-01-01 08.00.00 +0000/docs/a.txt", "first");
    writeFile(d + "/__changed/not a stamp/docs/a.txt", "ignored");
    FVVersionCatalog catalog(d, {"/home/docs"}, true);

    std::vector<FVItemVersion> versions = catalog.versions("/docs/a.txt");
    ASSERT_EQ(versions.size(), 4u);
    EXPECT_EQ(versions[0].label(), "current");
    EXPECT_EQ(versions[0].size, 3u);
    EXPECT_EQ(versions[1].label(), "2026-01-01 09.30.00 +0000");
    EXPECT_EQ(versions[1].kind, FVVersionKind::Removed);
    EXPECT_EQ(versions[2].label(), "2026-01-01 10.00.00 +0100");
    EXPECT_EQ(versions[3].path, d + "/__changed/2026-01-01 08.00.00 +0000/docs/a.txt");
}
