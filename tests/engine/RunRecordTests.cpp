// A run's record read back: every entry of the mirror with the digest of the source's bytes and
// the source's metadata, after a first run and after a run that changed, removed and added files;
// a current file keeps the digest it was recorded with, so damage in the mirror stays visible.

#include "SessionFixture.h"
#include "engine/record/FVRunRecords.h"
#include "fs/FVFileDescriptor.h"
#include "manifest/FVManifestReader.h"
#include "support/TreeLiteral.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <map>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

FVContentHash digestOf(const std::string& path) {
    FVFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<char> buffer(1 << 16);
    return FVContentHasher::ofDescriptor(fd.get(), buffer.data(), buffer.size()).value_or(FVContentHash{});
}

class RunRecordTest : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        buildTree(source, {{"a.txt", "first"}, {"sub/b", "bee"}, {"sub/empty/", ""}, {"big", std::string(300000, 'q')}, {"quiet", "q"}});
        chmod((source + "/sub/b").c_str(), 0600);
        if (geteuid() == 0) lchown((source + "/sub/b").c_str(), 1234, 5678);
        symlink("a.txt", (source + "/link").c_str());
        link((source + "/a.txt").c_str(), (source + "/hard").c_str());
        link((source + "/big").c_str(), (source + "/sub/big2").c_str());  // stays linked and current
        for (const char* name : {"/big", "/a.txt", "/sub"}) lsetxattr((source + name).c_str(), "user.tag", name, 2, 0);
        // Sparse: a hole, some data, a hole to the end.
        FVFd sparse(open((source + "/sparse").c_str(), O_WRONLY | O_CREAT, 0644));
        pwrite(sparse.get(), "data", 4, 2 << 20);
        ftruncate(sparse.get(), 5 << 20);
        options.moveChangedFiles = true;
    }

    void backUp() {
        FVBackupSession session;
        SessionRecorder recorder;
        ASSERT_EQ(run(session, recorder, {FVSourceItem::make(source, FVSourceMode::Backup)}), "finished");
        EXPECT_TRUE(session.errorMessages().empty()) << session.errorMessages().front();
        EXPECT_TRUE(session.warnings().empty());
    }

    std::map<std::string, FVManifestEntry> entriesOf(const FVRunRecord& run) {
        std::map<std::string, FVManifestEntry> entries;
        std::string error;
        auto reader = FVManifestReader::open(run.path, &error);
        EXPECT_TRUE(reader) << error;
        if (!reader) return entries;
        EXPECT_EQ(reader->header().stamp, run.stamp);
        EXPECT_EQ(reader->header().sources, std::vector<std::string>{source});
        FVManifestEntry entry;
        while (reader->next(entry)) EXPECT_TRUE(entries.emplace(entry.path, entry).second) << entry.path;
        EXPECT_FALSE(reader->damaged()) << reader->error();
        return entries;
    }

    // Every item of the mirror is recorded once, with its source's metadata and bytes.
    void expectMirrorRecorded(const std::map<std::string, FVManifestEntry>& entries) {
        const std::string mirror = dir / "dest/src";
        size_t items = 1;
        for (const auto& item : std::filesystem::recursive_directory_iterator(mirror)) {
            ++items;
            const std::string below = item.path().string().substr(mirror.size());
            SCOPED_TRACE(below);
            auto found = entries.find("/src" + below);
            ASSERT_NE(found, entries.end());
            const FVManifestEntry& entry = found->second;
            struct stat st {};
            ASSERT_EQ(lstat((source + below).c_str(), &st), 0);
            EXPECT_EQ(entry.mode, st.st_mode & 07777);
            EXPECT_EQ(entry.owner, st.st_uid);
            EXPECT_EQ(entry.group, st.st_gid);
            EXPECT_EQ(entry.sourceInode, st.st_ino);
            EXPECT_FALSE(entry.failed);
            if (S_ISREG(st.st_mode)) {
                EXPECT_EQ(entry.type, FVManifestEntryType::File);
                EXPECT_EQ(entry.size, static_cast<uint64_t>(st.st_size));
                ASSERT_TRUE(entry.hash);
                EXPECT_EQ(entry.hash->hex(), digestOf(source + below).hex());
            } else if (S_ISLNK(st.st_mode)) {
                EXPECT_EQ(entry.linkTarget, FVLongPath::readLink(source + below));
            } else {
                EXPECT_EQ(entry.type, FVManifestEntryType::Folder);
            }
        }
        EXPECT_EQ(entries.size(), items);
        EXPECT_TRUE(entries.contains("/src"));
    }

    const std::string source = dir / "src";
};

}  // namespace

TEST_F(RunRecordTest, EachRunRecordsTheWholeMirrorWithDigestsAndTheSourcesMetadata) {
    backUp();
    std::vector<FVRunRecord> runs = FVRunRecords(dir / "dest").list();
    ASSERT_EQ(runs.size(), 1u);
    ASSERT_TRUE(runs[0].complete()) << runs[0].problem;
    std::map<std::string, FVManifestEntry> first = entriesOf(runs[0]);
    expectMirrorRecorded(first);
    EXPECT_NE(first["/src/a.txt"].linkGroup, 0u);
    EXPECT_EQ(first["/src/a.txt"].linkGroup, first["/src/hard"].linkGroup);
    const FVManifestAttributes tagged = {{"user.tag", "/b"}};
    EXPECT_EQ(first["/src/big"].attributes, tagged);
    EXPECT_EQ(runs[0].summary->files, 7u);
    EXPECT_EQ(runs[0].summary->copied, 6u);  // later names are linked, not copied

    // Damage in the mirror that size and time do not show: the record keeps the digest the copy
    // had, so that a verification finds the damage instead of recording it as the truth.
    const std::string bigMirror = dir / "dest/src/big";
    struct stat before {};
    stat(bigMirror.c_str(), &before);
    {
        FVFd fd(open(bigMirror.c_str(), O_WRONLY));
        pwrite(fd.get(), "X", 1, 1000);
    }
    const timespec times[2] = {before.st_atim, before.st_mtim};
    utimensat(AT_FDCWD, bigMirror.c_str(), times, 0);

    writeFile(source + "/a.txt", "second, longer");
    lsetxattr((source + "/quiet").c_str(), "user.tag", "new", 3, 0);  // its data stays as it is
    std::filesystem::remove(source + "/sub/b");
    writeFile(source + "/sub/c", "new");
    backUp();
    runs = FVRunRecords(dir / "dest").list();
    ASSERT_EQ(runs.size(), 2u);
    ASSERT_TRUE(runs[1].complete());
    EXPECT_GT(runs[1].time, runs[0].time);
    std::map<std::string, FVManifestEntry> second = entriesOf(runs[1]);
    expectMirrorRecorded(second);
    EXPECT_FALSE(second.contains("/src/sub/b"));
    EXPECT_EQ(second["/src/hard"].hash, second["/src/a.txt"].hash);
    EXPECT_NE(digestOf(bigMirror), *second["/src/big"].hash);
    // Attributes of a current file, a copied one and a folder.
    EXPECT_EQ(second["/src/big"].attributes, tagged);
    EXPECT_EQ(second["/src/a.txt"].attributes, (FVManifestAttributes{{"user.tag", "/a"}}));
    EXPECT_EQ(second["/src/sub"].attributes, (FVManifestAttributes{{"user.tag", "/s"}}));
    EXPECT_EQ(second["/src/quiet"].attributes, (FVManifestAttributes{{"user.tag", "new"}}));
    EXPECT_EQ(runs[1].summary->copied, 2u);
    EXPECT_EQ(runs[1].summary->archived, 3u);  // both names of the old a.txt, and sub/b
    EXPECT_EQ(runs[1].summary->removed, 1u);
}
