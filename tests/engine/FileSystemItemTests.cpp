// The file-manager helpers: user files in a folder, attribute signatures, the immutable flag. The
// file item's types and sizes are read by every run the fault suite makes.

#include "engine/analysis/FVAttributeSignature.h"
#include "fs/FVFolderContents.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVExtendedAttributes.h"
#include "support/TempDir.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// Whether the process may set the immutable flag on this file system.
bool canSetImmutable(const std::string& dir) {
    std::string probe = dir + "/.probe";
    writeFile(probe, "");
    FVInodeFlags::lockFile(probe);
    bool locked = FVInodeFlags::unlockFile(probe);
    unlink(probe.c_str());
    return locked;
}

bool isImmutable(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    int flags = 0;
    bool result = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL);
    if (fd >= 0) close(fd);
    return result;
}

}  // namespace

TEST(FileManager, UserFilesAreThoseThatAreNeitherHiddenNorHousekeeping) {
    TempDir dir;
    EXPECT_FALSE(FVFolderContents::pathContainsUserFilePaths(dir.path()));
    EXPECT_FALSE(FVFolderContents::pathContainsUserFilePaths(dir / "missing"));
    writeFile(dir / ".ferrovane.conf", "");
    writeFile(dir / "Desktop DB", "");
    writeFile(dir / "Desktop DF", "");
    makeDirs(dir / ".hidden");
    EXPECT_FALSE(FVFolderContents::pathContainsUserFilePaths(dir.path()));
    writeFile(dir / "Desktop DB2", "");
    EXPECT_TRUE(FVFolderContents::pathContainsUserFilePaths(dir.path()));
}

TEST(FileManager, XattrSignatureIgnoresTheTwoFinderNamesAndSeesValues) {
    TempDir dir;
    writeFile(dir / "a", "");
    writeFile(dir / "b", "");
    if (setxattr((dir / "a").c_str(), "user.probe", "1", 1, 0) != 0) GTEST_SKIP() << "no user attributes here";
    removexattr((dir / "a").c_str(), "user.probe");
    EXPECT_TRUE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b"));
    setxattr((dir / "a").c_str(), "user.one", "x\0y", 3, 0);
    EXPECT_FALSE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b"));
    setxattr((dir / "b").c_str(), "user.one", "x\0z", 3, 0);
    EXPECT_FALSE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b"));
    setxattr((dir / "b").c_str(), "user.one", "x\0y", 3, 0);
    EXPECT_TRUE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b"));
    EXPECT_FALSE(FVAttributeSignature::xattrIdentialforFileAtPath("", dir / "b"));
    EXPECT_TRUE(FVExtendedAttributes::isSkipped("com.apple.quarantine"));
    EXPECT_TRUE(FVExtendedAttributes::isSkipped("com.apple.FinderInfo"));
    EXPECT_FALSE(FVExtendedAttributes::isSkipped("user.com.apple.FinderInfo"));
}

TEST(FileManager, UnlockingATreeClearsTheImmutableFlagThroughout) {
    TempDir dir;
    if (!canSetImmutable(dir.path())) GTEST_SKIP() << "the immutable flag cannot be set here";
    makeDirs(dir / "tree/sub");
    writeFile(dir / "tree/sub/f", "x");
    for (const char* p : {"tree/sub/f", "tree/sub", "tree"}) FVInodeFlags::lockFile(dir / p);
    FVInodeFlags::unlockRecursively(dir / "tree");
    for (const char* p : {"tree/sub/f", "tree/sub", "tree"}) EXPECT_FALSE(isImmutable(dir / p)) << p;
}
