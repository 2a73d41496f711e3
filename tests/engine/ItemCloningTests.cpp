// Cloning items with every piece of metadata, replacing what is in the way (whole runs move it
// aside first, so only a race reaches this), a vanished source, and a source written while it is
// copied to a destination that keeps exact times or FAT's 2 s. Unreadable sources, crashes
// mid-copy, links planted in the destination, a full destination and paths deeper than PATH_MAX
// are checked on whole runs (tests/faults: access, crash, storage, escapes, hostile).

#include "fs/FVInodeFlags.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"
#include "CopyWorkerHarness.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

std::string rsyncDifferences(const std::string& source, const std::string& destination, const char* options = "-aAXn") {
    ProcessResult result = runProcess({"/usr/bin/rsync", options, "--itemize-changes", source + "/", destination + "/"});
    EXPECT_EQ(result.exitStatus, 0) << result.err;
    return result.out;
}

std::string pattern(size_t size, unsigned seed) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 2654435761u + seed) >> 13);
    return data;
}

void setTimes(const std::string& path, time_t seconds, long nanoseconds) {
    struct timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

int inodeFlags(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
    int flags = 0;
    if (fd < 0 || ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) flags = -1;
    if (fd >= 0) close(fd);
    return flags;
}

bool lock(const std::string& path) {
    FVInodeFlags::lockFile(path);
    int flags = inodeFlags(path);
    return flags >= 0 && (flags & FS_IMMUTABLE_FL);
}

bool run(const std::string& command) { return runProcess({"/bin/sh", "-c", command}).exitStatus == 0; }

}  // namespace

TEST(ItemCloning, MirrorsEveryKindOfItemWithItsMetadata) {
    if (geteuid() != 0) GTEST_SKIP() << "giving files to other owners needs the superuser";
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst";
    buildTree(src, {{"modes/sticky/", ""}, {"acl/", ""}, {"empty", ""}, {"exact", pattern(1048576, 1)},
                    {"over", pattern(1048577, 2)}, {"big", pattern(3 * 1048576 + 17, 3)}, {"new\nline", "n"},
                    {"bad\xff\xfeutf8", "u"}, {std::string(255, 'n'), "long name"}, {"modes/setuid", "s"},
                    {"modes/setgid", "g"}, {"owned", "o"}});
    makeDirs(dst);
    {
        int fd = open((src + "/sparse").c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_EQ(pwrite(fd, "data", 4, 5 << 20), 4);
        ASSERT_EQ(pwrite(fd, "tail", 4, 19 << 20), 4);
        ASSERT_EQ(ftruncate(fd, 24 << 20), 0);
        close(fd);
    }
    chmod((src + "/modes/setuid").c_str(), 04755);
    chmod((src + "/modes/setgid").c_str(), 02750);
    chmod((src + "/modes/sticky").c_str(), 01777);
    ASSERT_EQ(lchown((src + "/owned").c_str(), 1234, 5678), 0);
    std::string longTarget;
    while (longTarget.size() < 1500) longTarget += "segment/";
    ASSERT_EQ(symlink(longTarget.c_str(), (src + "/dangling").c_str()), 0);
    ASSERT_EQ(symlink("exact", (src + "/link").c_str()), 0);
    ASSERT_EQ(lchown((src + "/link").c_str(), 1234, 5678), 0);
    ASSERT_EQ(mkfifo((src + "/fifo").c_str(), 0640), 0);
    mknod((src + "/null").c_str(), S_IFCHR | 0600, makedev(1, 3));  // where allowed; rsync compares it
    ASSERT_EQ(setxattr((src + "/big").c_str(), "user.plain", "1", 1, 0), 0);
    ASSERT_EQ(setxattr((src + "/big").c_str(), "user.binary", "a\0b", 3, 0), 0);
    ASSERT_EQ(setxattr((src + "/modes").c_str(), "user.folder", "f", 1, 0), 0);
    ASSERT_EQ(setxattr((src + "/link").c_str(), "trusted.onlink", "l", 1, 0), 0);
    // A file made before the folder got a default ACL has none, while its copy inherits one from
    // the destination folder that has it already.
    writeFile(src + "/acl/before", "b");
    ASSERT_TRUE(run("setfacl -m u:1234:rw '" + src + "/exact' && setfacl -d -m u:1234:rx '" + src + "/acl' && mkdir '" +
                    dst + "/acl' && setfacl -d -m u:1234:rx '" + dst + "/acl'"));
    writeFile(src + "/acl/after", "a");
    for (const char* name : {"/empty", "/exact", "/over", "/big", "/sparse", "/owned", "/modes/setuid", "/link", "/fifo"})
        setTimes(src + name, 1600000000, 123456789);
    for (const char* name : {"/modes/sticky", "/modes", "/acl", ""}) setTimes(src + name, 1500000000, 987654321);
    bool flags = lock(src + "/over");

    RecordingDelegate delegate;
    copyTree(src, dst, delegate);
    EXPECT_EQ(delegate.finished(), 1);
    EXPECT_TRUE(delegate.messagesAt("ERROR").empty()) << delegate.messagesAt("ERROR")[0];
    EXPECT_TRUE(delegate.messagesAt("WARNING").empty()) << delegate.messagesAt("WARNING")[0];

    struct stat s {}, d {};
    ASSERT_EQ(stat((dst + "/exact").c_str(), &d), 0);  // before rsync reads it and moves its access time
    EXPECT_EQ(d.st_mtim.tv_nsec, 123456789);
    EXPECT_EQ(d.st_atim.tv_nsec, 123456789);
    EXPECT_EQ(rsyncDifferences(src, dst, "-aAXnc"), "");
    EXPECT_TRUE(temporaryLeftovers(dst).empty());
    ASSERT_EQ(stat((src + "/sparse").c_str(), &s), 0);
    ASSERT_EQ(stat((dst + "/sparse").c_str(), &d), 0);
    EXPECT_LE(d.st_blocks, s.st_blocks + 16) << "the holes were written";
    EXPECT_TRUE(!flags || (inodeFlags(dst + "/over") & FS_IMMUTABLE_FL));
}

TEST(ItemCloning, AccessControlListsStayBehindWhenDisabled) {
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst";
    buildTree(dir.path(), {{"src/folder/file", "x"}, {"dst/", ""}});
    ASSERT_TRUE(run("setfacl -m u:1234:rw '" + src + "/folder/file' && setfacl -m u:1234:rx '" + src + "/folder'"));
    ASSERT_EQ(setxattr((src + "/folder/file").c_str(), "user.kept", "k", 1, 0), 0);
    RecordingDelegate delegate;
    copyTree(src, dst, delegate, [](FVFileCopyWorker& worker) { worker.setDisableACLClone(true); });
    EXPECT_LT(getxattr((dst + "/folder/file").c_str(), "system.posix_acl_access", nullptr, 0), 0);
    EXPECT_LT(getxattr((dst + "/folder").c_str(), "system.posix_acl_access", nullptr, 0), 0);
    EXPECT_EQ(rsyncDifferences(src, dst, "-aXn"), "") << "everything but the lists is carried";
}

TEST(ItemCloning, ReplacesWhatStandsInTheWay) {
    TempDir dir;
    std::string src = dir / "src", dst = dir / "dst";
    buildTree(src, {{"changed", "new version"}, {"dirInWay", "a file now"}, {"fileInWay/child", "child"},
                    {"locked", "unlocked and replaced"}, {"lockedFolder/inside", "inside"}});
    buildTree(dst, {{"changed", "old"}, {"dirInWay/inner/x", "x"}, {"fileInWay", "a folder now"},
                    {"locked", "old locked"}, {"lockedFolder/", ""}});
    bool flags = lock(dst + "/locked") && lock(dst + "/lockedFolder");

    // One thread, so that the folder's pair replaces the file in its way before the child is
    // copied; with two, the child can race ahead, fail in this pass and be copied by the next.
    RecordingDelegate delegate;
    copyTree(src, dst, delegate, [](FVFileCopyWorker& worker) { worker.setMaxThreads(1); });
    EXPECT_TRUE(delegate.messagesAt("ERROR").empty()) << delegate.messagesAt("ERROR")[0];
    EXPECT_EQ(rsyncDifferences(src, dst), "");
    if (flags) {
        EXPECT_EQ(readFile(dst + "/locked"), "unlocked and replaced");
        EXPECT_EQ(readFile(dst + "/lockedFolder/inside"), "inside");
    }
    std::vector<std::string> overwritten = delegate.overwritten();
    EXPECT_NE(std::find(overwritten.begin(), overwritten.end(), dst + "/fileInWay"), overwritten.end());
}

TEST(ItemCloning, AVanishedSourceIsANote) {
    TempDir dir;
    makeDirs(dir / "dst");
    writeFile(dir / "gone", "x");
    RecordingDelegate delegate;
    {
        FVFileCopyWorker worker;
        worker.setDelegate(&delegate);
        worker.setDestinationRoot(dir / "dst");
        worker.startCopySession();
        auto source = FVFileSystemItem::itemWithPath(dir / "gone");
        source->loadStatAttributes();
        unlink((dir / "gone").c_str());
        worker.addCopyItemFromSource(source, FVFileSystemItem::itemWithPath(dir / "dst/gone"));
        worker.endCopySession();
        ASSERT_TRUE(delegate.waitForEnd());
    }
    EXPECT_EQ(delegate.messages(), std::vector<std::string>{"INFO NOTE: Source file vanished since analysing: " + (dir / "gone")});

}

TEST(ItemCloning, ASourceChangedDuringItsCopyIsCopiedAgainAndOneThatKeepsChangingIsDatedToBeCopiedNextTime) {
    // What a writer does to the file after the copy of its data, each time with a new date.
    const std::pair<const char*, std::function<void(const std::string&, int)>> writers[] = {
        {"rewrite", [](const std::string& path, int n) { writeFile(path, pattern(3000, 100 + n)); }},
        {"truncate", [](const std::string& path, int n) { writeFile(path, readFile(path).substr(0, 3000 - 700 * n)); }},
    };
    constexpr time_t kSaved = 1'600'000'000;
    constexpr int64_t kSecond = 1'000'000'000, kHalf = 500'000'000;
    auto nanoseconds = [](const timespec& t) { return static_cast<int64_t>(t.tv_sec) * kSecond + t.tv_nsec; };
    // Exact times, and FAT's 2 s with times between two granules.
    for (int64_t granule : {int64_t{1}, 2 * kSecond}) {
        for (const auto& [name, change] : writers) {
            // Changed after the first copy only, then after each of the three copies.
            for (int changes : {1, 3}) {
                SCOPED_TRACE(std::string(name) + " " + std::to_string(changes) + " " + std::to_string(granule));
                TempDir dir;
                makeDirs(dir / "dst");
                const std::string source = dir / "file", mirror = dir / "dst/file";
                writeFile(source, pattern(3000, 1));
                setTimes(source, kSaved, kHalf);
                std::string lastCopied;
                int made = 0;
                RecordingDelegate delegate;
                copyPairs(dir / "dst", {{source, mirror}}, delegate, [&](FVFileCopyWorker& worker) {
                    FVDestinationProfile profile;
                    profile.timeGranularityNs = granule;
                    worker.setDestinationProfile(profile);
                    worker.setChunkHook([&](const std::string&, uint64_t) {
                        lastCopied = readFile(source);
                        if (made == changes) return;
                        change(source, ++made);
                        setTimes(source, kSaved + made, kHalf);
                    });
                });
                struct stat copied {};
                ASSERT_EQ(lstat(mirror.c_str(), &copied), 0);
                EXPECT_EQ(readFile(mirror), lastCopied);
                const std::vector<std::string> warnings = delegate.messagesAt("WARNING");
                if (changes == 1) {
                    EXPECT_EQ(readFile(mirror), readFile(source));
                    EXPECT_EQ(copied.st_mtim.tv_sec, kSaved + 1);
                    EXPECT_TRUE(warnings.empty()) << warnings[0];
                } else {
                    ASSERT_EQ(warnings.size(), 1u);
                    EXPECT_NE(warnings[0].find(source + " changed while it was copied"), std::string::npos);
                    // A granule earlier than the last copy's source even where the destination rounds
                    // the time up, so the next run never takes it for current.
                    const int64_t copiedAt = nanoseconds(copied.st_mtim);
                    const int64_t roundedUp = (copiedAt + granule - 1) / granule * granule;
                    EXPECT_GE(nanoseconds({kSaved + 2, kHalf}) - roundedUp, granule);
                }
            }
        }
    }
}
