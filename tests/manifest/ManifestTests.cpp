// A run's manifest is written as a stream from several threads and read back whole; anything
// that is not a finished manifest is never read as one.

#include "engine/record/FVRunRecords.h"
#include "manifest/FVManifestReader.h"
#include "manifest/FVManifestWriter.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <thread>

namespace ferrovane {
namespace {

using test::TempDir;

FVManifestEntry fileEntry(int i) {
    FVManifestEntry e;
    e.path = "/home/user/Documents/folder " + std::to_string(i / 100) + "/file " + std::to_string(i) + ".txt";
    e.size = uint64_t(i) * 1000;
    e.modificationTimeNs = 1'700'000'000'123'456'789 + i;
    e.mode = 0600;
    e.owner = 1000;
    e.group = 1000;
    e.sourceDevice = 2049;
    e.sourceInode = 100000 + uint64_t(i);
    e.sourceChangeTimeNs = e.modificationTimeNs + 5;
    FVContentHasher hasher;
    hasher.update(e.path.data(), e.path.size());
    e.hash = hasher.digest();
    if (i % 7 == 0) e.attributes = {{"system.posix_acl_access", std::string("\x02\0\0\0", 4)}, {"user.tag", "blue"}};
    if (i % 11 == 0) e.linkGroup = 3;
    return e;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) names.push_back(entry.path().filename());
    return names;
}

FVManifestHeader header(const std::string& stamp) {
    FVManifestHeader h;
    h.stamp = stamp;
    h.startedAtNs = 1'700'000'000'000'000'000;
    h.programVersion = "test";
    h.sources = {"/home/user/Documents", std::string("/odd\xff name")};
    return h;
}

TEST(Manifest, EntriesFromSeveralThreadsComeBackWholeWithTheirSummary) {
    TempDir dir;
    std::string folder = dir / "__runs";
    std::string error;
    auto writer = FVManifestWriter::create(folder, header("2026-11-24 10.00.00 +0000"), &error);
    ASSERT_TRUE(writer) << error;

    constexpr int kPerThread = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) writer->add(fileEntry(t * kPerThread + i));
        });
    for (auto& th : threads) th.join();
    FVManifestEntry link;
    link.path = "/home/user/Documents/link";
    link.type = FVManifestEntryType::Link;
    link.linkTarget = std::string("target\n\xfe", 8);
    link.modificationTimeNs = -5;  // before the epoch
    writer->add(link);
    // Only the finished file is in the folder, under the stamp's name.
    EXPECT_EQ(namesIn(folder).size(), 1u);
    FVManifestSummary summary;
    summary.outcome = FVManifestOutcome::Stopped;
    summary.entries = 3 * kPerThread + 1;
    summary.errors = 2;
    ASSERT_TRUE(writer->finish(summary, &error)) << error;
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"2026-11-24 10.00.00 +0000.fvmanifest"});

    std::string path = folder + "/2026-11-24 10.00.00 +0000.fvmanifest";
    auto reader = FVManifestReader::open(path, &error);
    ASSERT_TRUE(reader) << error;
    EXPECT_EQ(reader->header().sources, header("").sources);
    std::vector<bool> seen(3 * kPerThread);
    FVManifestEntry entry;
    int count = 0;
    while (reader->next(entry)) {
        ++count;
        if (entry.type == FVManifestEntryType::Link) {
            EXPECT_EQ(entry, link);
            continue;
        }
        int i = std::stoi(entry.path.substr(entry.path.rfind("file ") + 5));
        EXPECT_EQ(entry, fileEntry(i));
        seen[size_t(i)] = true;
    }
    EXPECT_FALSE(reader->damaged()) << reader->error();
    EXPECT_EQ(count, 3 * kPerThread + 1);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 3 * kPerThread);
    ASSERT_TRUE(reader->summary());
    EXPECT_EQ(reader->summary()->outcome, FVManifestOutcome::Stopped);
    EXPECT_EQ(reader->summary()->errors, 2u);

    auto quick = FVManifestReader::readSummary(path, &error);
    ASSERT_TRUE(quick) << error;
    EXPECT_EQ(quick->entries, summary.entries);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_LT(st.st_size / count, 40) << "bytes per entry";

    // A stopped run is listed, but never offered as a point in time.
    FVRunRecords records(dir.path());
    ASSERT_EQ(records.list().size(), 1u);
    EXPECT_FALSE(records.list()[0].complete());
    EXPECT_FALSE(records.resolve("2026-11-24 10.00.00 +0000", &error));
}

TEST(Manifest, DamagedCutAndUnfinishedFilesAreNeverReadAsWhole) {
    TempDir dir;
    std::string folder = dir / "__runs";
    std::string error;
    {
        auto dropped = FVManifestWriter::create(folder, header("2026-11-24 09.00.00 +0000"), &error);
        ASSERT_TRUE(dropped) << error;
        dropped->add(fileEntry(1));
    }
    EXPECT_TRUE(namesIn(folder).empty()) << "a writer dropped unfinished leaves nothing";

    auto writer = FVManifestWriter::create(folder, header("2026-11-24 10.00.00 +0000"), &error);
    for (int i = 0; i < 2000; ++i) writer->add(fileEntry(i));
    FVManifestSummary summary;
    summary.outcome = FVManifestOutcome::Complete;
    ASSERT_TRUE(writer->finish(summary, &error)) << error;
    std::string path = folder + "/2026-11-24 10.00.00 +0000.fvmanifest";
    std::string bytes = test::readFile(path);

    auto readAll = [](const std::string& file) {
        std::string problem;
        auto reader = FVManifestReader::open(file, &problem);
        if (!reader) return std::string("unopened");
        FVManifestEntry e;
        while (reader->next(e)) {
        }
        return reader->damaged() ? reader->error() : std::string();
    };
    EXPECT_EQ(readAll(path), "");
    for (size_t cut : {bytes.size() - 1, bytes.size() - 20, bytes.size() / 2}) {
        test::writeFile(dir / "cut", bytes.substr(0, cut));
        EXPECT_NE(readAll(dir / "cut"), "") << "cut at " << cut;
        EXPECT_FALSE(FVManifestReader::readSummary(dir / "cut", &error)) << "cut at " << cut;
    }
    std::string flipped = bytes;
    flipped[bytes.size() / 3] ^= 0x10;
    test::writeFile(dir / "flipped", flipped);
    EXPECT_NE(readAll(dir / "flipped"), "");

    // A point in time is the last complete run at or before it.
    FVRunRecords records(dir.path());
    ASSERT_TRUE(records.resolve("2026-11-24 10.00.00 +0000", &error)) << error;
    EXPECT_FALSE(records.resolve("2020-01-01", &error));
    EXPECT_NE(error.find("no complete run"), std::string::npos) << error;
    EXPECT_FALSE(records.resolve("next tuesday", &error));
}

TEST(Manifest, HashesAreStableAndHolesHashAsZeros) {
    FVContentHasher a, b;
    std::string data = "abc" + std::string(100000, '\0') + "def";
    a.update(data.data(), data.size());
    b.update("abc", 3);
    b.updateZeros(100000);
    b.update("def", 3);
    EXPECT_EQ(a.digest(), b.digest());
    EXPECT_EQ(FVContentHash::fromHex(a.digest().hex()), a.digest());
    FVContentHasher empty;
    // XXH3-128 of no bytes, so that other tools can check what is recorded.
    EXPECT_EQ(empty.digest().hex(), "99aa06d3014798d86001c324468d497f");
}

}  // namespace
}  // namespace ferrovane
