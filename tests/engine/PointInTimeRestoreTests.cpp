// A folder restored as a run recorded it: each file from wherever its bytes are now (the mirror, or
// the archive of the run that displaced it), checked against its digest, with the recorded
// metadata; files whose bytes are gone are named. The runs' manifests are written here next to
// real mirror and archive folders, as three runs would leave them.

#include "engine/record/FVRunRecords.h"
#include "engine/restore/FVPointInTimePlan.h"
#include "engine/restore/FVPointInTimeRestore.h"
#include "manifest/FVManifestWriter.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <map>

namespace ferrovane {
namespace {

using test::TempDir;

constexpr const char* kStamps[] = {"2026-11-20 10.00.00 +0000", "2026-11-21 10.00.00 +0000",
                                   "2026-11-22 10.00.00 +0000"};
constexpr int64_t kTime = 1'763'000'000'123'456'789;

class Runs {
public:
    explicit Runs(const std::string& destination, const std::string& source) : destination_(destination) {
        header_.programVersion = "test";
        header_.sources = {source};
        header_.folderPerSource = true;
    }
    // Writes a complete run's manifest of the tree given: path -> content ("/" ending: folder,
    // "->" starting: link).
    void record(int run, const std::map<std::string, std::string>& tree) {
        header_.stamp = kStamps[run];
        std::string error;
        auto writer = FVManifestWriter::create(destination_ + "/__runs", header_, &error);
        ASSERT_TRUE(writer) << error;
        FVManifestSummary summary;
        summary.outcome = FVManifestOutcome::Complete;
        for (const auto& [path, content] : tree) {
            FVManifestEntry e;
            e.path = path;
            e.modificationTimeNs = kTime + run;
            e.owner = 4321;
            e.group = 4322;
            if (path.ends_with('/')) {
                e.path.pop_back();
                e.type = FVManifestEntryType::Folder;
                e.mode = 0750;
            } else if (content.starts_with("->")) {
                e.type = FVManifestEntryType::Link;
                e.linkTarget = content.substr(2);
            } else {
                e.mode = 0600;
                e.size = content.size();
                FVContentHasher hasher;
                hasher.update(content.data(), content.size());
                e.hash = hasher.digest();
                e.attributes = {{"user.tag", "kept"}};
            }
            writer->add(e);
            ++summary.entries;
        }
        ASSERT_TRUE(writer->finish(summary, &error)) << error;
    }

private:
    std::string destination_;
    FVManifestHeader header_;
};

void put(const std::string& path, const std::string& content) {
    test::makeDirs(path.substr(0, path.rfind('/')));
    test::writeFile(path, content);
}

struct Restored {
    FVPointInTimeRestore::Summary summary;
    std::vector<std::string> lines;
};

Restored restore(const std::string& destination, int run, const std::string& to, bool replace = false) {
    std::string problem;
    auto record = FVRunRecords(destination).resolve(kStamps[run], &problem);
    EXPECT_TRUE(record) << problem;
    auto plan = FVPointInTimePlan::make(destination, *record, "/Docs", to, &problem);
    EXPECT_TRUE(plan) << problem;
    Restored restored;
    FVPointInTimeRestore restore(*plan, replace);
    restored.summary = restore.run(nullptr, [&](const std::string& line, bool) { restored.lines.push_back(line); });
    return restored;
}

TEST(PointInTimeRestore, EachRunsFolderComesBackFromWhereItsBytesAreNowWithItsRecordedMetadata) {
    TempDir dir;
    setenv("FERROVANE_LOG_FILE", (dir / "log").c_str(), 1);
    setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    const std::string d = dir / "dest";
    const std::string source = dir / "src/Docs";
    Runs runs(d, source);
    // Run 0 records the first state; run 1 changes a.txt and removes b.txt (both archived); run 2
    // changes sub/c.txt with archiving off, so its earlier bytes are gone.
    put(d + "/__changed/" + kStamps[1] + "/Docs/a.txt", "one");
    put(d + "/__removed/" + kStamps[1] + "/Docs/b.txt", "bee");
    put(d + "/Docs/a.txt", "one, again");
    put(d + "/Docs/sub/c.txt", "sea");
    test::makeDirs(d + "/Docs/empty");
    ASSERT_EQ(symlink("a.txt", (d + "/Docs/link").c_str()), 0);
    runs.record(0, {{"/Docs/", ""}, {"/Docs/a.txt", "one"}, {"/Docs/b.txt", "bee"}, {"/Docs/sub/", ""},
                    {"/Docs/sub/c.txt", "see"}, {"/Docs/link", "->a.txt"}, {"/Docs/empty/", ""}});
    runs.record(1, {{"/Docs/", ""}, {"/Docs/a.txt", "one, again"}, {"/Docs/sub/", ""}, {"/Docs/sub/c.txt", "see"},
                    {"/Docs/link", "->a.txt"}, {"/Docs/empty/", ""}});
    runs.record(2, {{"/Docs/", ""}, {"/Docs/a.txt", "one, again"}, {"/Docs/sub/", ""}, {"/Docs/sub/c.txt", "sea"},
                    {"/Docs/link", "->a.txt"}, {"/Docs/empty/", ""}});

    Restored first = restore(d, 0, dir / "first");
    const std::string r = dir / "first/Docs";
    EXPECT_EQ(test::readFile(r + "/a.txt"), "one");
    EXPECT_EQ(test::readFile(r + "/b.txt"), "bee");
    EXPECT_FALSE(test::exists(r + "/sub/c.txt"));
    EXPECT_EQ(first.summary.gone, 1u);
    EXPECT_EQ(first.summary.files, 3u);
    EXPECT_NE(std::find(first.lines.begin(), first.lines.end(), "not restored: bytes gone: " + r + "/sub/c.txt"),
              first.lines.end());
    EXPECT_EQ(std::filesystem::read_symlink(r + "/link"), "a.txt");
    EXPECT_TRUE(std::filesystem::is_directory(r + "/empty"));
    struct stat st {};
    ASSERT_EQ(stat((r + "/a.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_mtim.tv_nsec, kTime % 1'000'000'000);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, 4321u);
    }
    char tag[8] = {};
    EXPECT_EQ(getxattr((r + "/a.txt").c_str(), "user.tag", tag, sizeof tag), 4);
    ASSERT_EQ(stat((r + "/sub").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(st.st_mtim.tv_nsec, kTime % 1'000'000'000);

    // A copy that no longer matches its digest is never restored as the file.
    put(d + "/Docs/a.txt", "one, AGAIN");
    Restored second = restore(d, 1, dir / "second");
    EXPECT_FALSE(test::exists(dir / "second/Docs/a.txt"));
    EXPECT_FALSE(test::exists(dir / "second/Docs/sub/c.txt"));
    EXPECT_EQ(second.summary.gone, 2u);

    // Into a folder where different items are: nothing is in the way for identical ones, a
    // different one is a conflict the restore replaces only when asked to.
    put(d + "/Docs/a.txt", "one, again");
    std::string problem;
    auto record = FVRunRecords(d).resolve(kStamps[2], &problem);
    auto plan = FVPointInTimePlan::make(d, *record, "/Docs", dir / "first", &problem);
    ASSERT_TRUE(plan) << problem;
    ASSERT_EQ(plan->conflicts().size(), 1u);
    EXPECT_EQ(plan->conflicts()[0].target, r + "/a.txt");
    Restored replaced = restore(d, 2, dir / "first", true);
    EXPECT_EQ(replaced.summary.replaced, 1u);
    EXPECT_EQ(test::readFile(r + "/a.txt"), "one, again");
    EXPECT_EQ(test::readFile(r + "/sub/c.txt"), "sea");
    EXPECT_TRUE(test::exists(dir / "data/Trash/files/a.txt"));
    // The same bytes with another mode (a plain restore from a disk without modes) are put right.
    ASSERT_EQ(chmod((r + "/a.txt").c_str(), 0644), 0);
    EXPECT_EQ(restore(d, 2, dir / "first").summary.errors, 0u);
    ASSERT_EQ(stat((r + "/a.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    unsetenv("XDG_DATA_HOME");
    unsetenv("FERROVANE_LOG_FILE");
}

}  // namespace
}  // namespace ferrovane
