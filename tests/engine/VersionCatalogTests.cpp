// The versions a destination keeps of a path and the runs it holds, and the order in which they are listed (the mapping
// of paths is the layout's, tested with it).

#include "engine/archive/FVArchivedRuns.h"
#include "engine/record/FVVersionCatalog.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

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
    FVVersionCatalog catalog(FVMirrorLayout(d, true, {"/home/docs"}));

    std::vector<FVItemVersion> versions = catalog.versions("/docs/a.txt");
    ASSERT_EQ(versions.size(), 4u);
    EXPECT_EQ(versions[0].label(), "current");
    EXPECT_EQ(versions[0].size, 3u);
    EXPECT_EQ(versions[1].label(), "2026-01-01 09.30.00 +0000");
    EXPECT_EQ(versions[1].kind, FVVersionKind::Removed);
    EXPECT_EQ(versions[2].label(), "2026-01-01 10.00.00 +0100");
    EXPECT_EQ(versions[3].path, d + "/__changed/2026-01-01 08.00.00 +0000/docs/a.txt");

    // The runs the destination holds: archive folders and records by stamp, oldest first.
    writeFile(d + "/__runs/2026-01-01 09.30.00 +0000.fvmanifest", "damaged");
    writeFile(d + "/__runs/2026-01-01 11.00.00 +0000.fvmanifest", "damaged");
    std::vector<FVArchivedRun> runs = FVArchivedRuns(FVMirrorLayout(d, true, {"/home/docs"})).list();
    std::vector<std::string> listed;
    for (const FVArchivedRun& run : runs)
        listed.push_back(run.stamp + (run.hasChangedFolder ? " c" : "") + (run.hasRemovedFolder ? " r" : "") +
                         (run.record ? " m" : ""));
    EXPECT_EQ(listed, (std::vector<std::string>{"2026-01-01 08.00.00 +0000 c", "2026-01-01 10.00.00 +0100 c",
                                                "2026-01-01 09.30.00 +0000 r m", "2026-01-01 11.00.00 +0000 m"}));
}
