// Verification reads a destination back against its record: every planted fault is named, an
// intact destination has nothing to say, and it reads beside restores but never beside a run.

#include "engine/config/FVDestinationLock.h"
#include "engine/record/FVRecordIndex.h"
#include "engine/record/FVVerification.h"
#include "manifest/FVPathKey.h"
#include "support/RecordedRun.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

namespace ferrovane {
namespace {

using test::TempDir;

const std::string kFirstRun = "2026-11-20 10.00.00 +0000";
const std::string kSecondRun = "2026-11-21 10.00.00 +0000";

void flipByte(const std::string& path) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    char c = 0;
    file.seekg(2);
    file.get(c);
    file.seekp(2);
    file.put(static_cast<char>(c ^ 0x20));
}

class VerificationTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("FERROVANE_LOG_FILE", (dir / "Ferrovane.log").c_str(), 1);
        for (const std::string& root : {source, destination + "/Docs"}) {
            test::makeDirs(root + "/sub");
            test::writeFile(root + "/a.txt", "alpha one");
            test::writeFile(root + "/b.txt", "bravo two");
            test::writeFile(root + "/sub/c.txt", "charlie");
        }
        test::recordRun(destination, kFirstRun, {source});
        // The second run replaces a.txt and archives the copy it replaces.
        test::writeFile(source + "/a.txt", "alpha, changed");
        const std::string archived = destination + "/__changed/" + kSecondRun + "/Docs";
        test::makeDirs(archived);
        ASSERT_EQ(std::rename((destination + "/Docs/a.txt").c_str(), (archived + "/a.txt").c_str()), 0);
        test::writeFile(destination + "/Docs/a.txt", "alpha, changed");
        test::recordRun(destination, kSecondRun, {source});
    }

    std::set<std::string> verify(bool sources = false, const std::string& at = {}) {
        std::set<std::string> findings;
        FVVerification verification({destination, at, sources, 2}, nullptr, [&](const FVVerificationFinding& f) {
            findings.insert(std::string(FVVerificationFinding::kindName(f.kind)) + ": " + f.path);
        });
        summary = verification.run();
        return findings;
    }

    TempDir dir;
    const std::string source = dir / "source/Docs";
    const std::string destination = dir / "destination";
    FVVerificationSummary summary;
};

TEST(RecordIndex, GrowsWithoutLosingAPathAndTheNewestRecordWins) {
    FVRecordIndex index;
    FVManifestEntry entry;
    for (int i = 0; i < 20000; ++i) {
        entry.path = "/Docs/file " + std::to_string(i);
        entry.hash = FVContentHash{0, uint64_t(i)};
        index.record(entry);
    }
    entry.path = "/Docs/file 7";
    entry.failed = true;  // a file the run could not bring up to date: its bytes are not known
    index.record(entry);
    EXPECT_EQ(index.size(), 20000u);
    for (int i = 0; i < 20000; ++i) {
        const FVRecordIndex::Record* record = index.find(FVPathKey::of("/Docs/file " + std::to_string(i)));
        ASSERT_NE(record, nullptr) << i;
        EXPECT_EQ(record->hasDigest, i != 7);
        EXPECT_EQ(record->digest.low, i != 7 ? uint64_t(i) : 0u);
    }
    EXPECT_EQ(index.find(FVPathKey::of("/Docs/file 20000")), nullptr);
}

TEST_F(VerificationTest, IntactDestinationReadsBesideRestoresButNotBesideARun) {
    FVDestinationLock restore;
    ASSERT_EQ(restore.acquire(destination, FVDestinationLock::Mode::Shared), FVDestinationLock::Status::Acquired);
    EXPECT_EQ(verify(true), std::set<std::string>{});
    EXPECT_EQ(summary.status, FVVerificationSummary::Status::Clean);
    EXPECT_EQ(summary.run, kSecondRun);
    // Three mirror files and their sources, and the archived one.
    EXPECT_EQ(summary.files, 7u);
    restore.release();

    FVDestinationLock run;
    ASSERT_EQ(run.acquire(destination), FVDestinationLock::Status::Acquired);
    verify();
    EXPECT_EQ(summary.status, FVVerificationSummary::Status::Busy);
    run.release();
}

TEST_F(VerificationTest, NamesDamagedMissingAndUnexpectedItemsInMirrorAndArchives) {
    flipByte(destination + "/Docs/b.txt");
    flipByte(destination + "/__changed/" + kSecondRun + "/Docs/a.txt");
    ASSERT_EQ(std::remove((destination + "/Docs/sub/c.txt").c_str()), 0);
    test::writeFile(destination + "/Docs/planted.txt", "not from any run");
    // A leftover of a killed copy is the next run's to remove, not a finding.
    test::writeFile(destination + "/Docs/.ferrovane-tmp-0123456789abcdef", "half");

    std::set<std::string> expected = {
        "damaged: " + destination + "/Docs/b.txt",
        "damaged: " + destination + "/__changed/" + kSecondRun + "/Docs/a.txt",
        "missing: " + destination + "/Docs/sub/c.txt",
        "unexpected: " + destination + "/Docs/planted.txt",
    };
    EXPECT_EQ(verify(), expected);
}

TEST_F(VerificationTest, ItemsARunCouldNotMakeAreNotMissing) {
    // A complete run that could not read a source file, then a run stopped before it made the
    // folder it had already recorded.
    FVManifestEntry unreadable;
    unreadable.path = "/Docs/secret.key";
    unreadable.failed = true;
    test::recordRun(destination, "2026-11-22 10.00.00 +0000", {source}, FVManifestOutcome::Complete, {unreadable});
    FVManifestEntry unmade;
    unmade.path = "/Docs/new folder";
    unmade.type = FVManifestEntryType::Folder;
    test::recordRun(destination, "2026-11-23 10.00.00 +0000", {source}, FVManifestOutcome::Stopped, {unmade});
    EXPECT_EQ(verify(), std::set<std::string>{});
}

TEST_F(VerificationTest, SourcesFindAChangeWhoseSizeAndTimeWerePutBack) {
    const std::string changed = source + "/b.txt";
    struct stat before {};
    ASSERT_EQ(stat(changed.c_str(), &before), 0);
    test::writeFile(changed, "bravo TWO");
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, changed.c_str(), times, 0), 0);

    EXPECT_EQ(verify(), std::set<std::string>{});
    EXPECT_EQ(verify(true), std::set<std::string>{"source differs: " + changed});
}

TEST_F(VerificationTest, EarlierRunNamesTheVersionsNoArchiveKept) {
    // Archives are purged by age: the mirror is still intact, the first run's a.txt is gone.
    ASSERT_EQ(std::system(("rm -rf '" + destination + "/__changed'").c_str()), 0);
    EXPECT_EQ(verify(), std::set<std::string>{});
    EXPECT_EQ(verify(false, kFirstRun), std::set<std::string>{"gone: " + destination + "/Docs/a.txt"});
    EXPECT_EQ(summary.run, kFirstRun);
}

}  // namespace
}  // namespace ferrovane
