// The lazily loaded file item and the file-manager helpers.

#include "engine/analysis/FVAttributeSignature.h"
#include "fs/FVFolderContents.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileDescriptor.h"
#include "engine/run/FVFileSystemItem.h"
#include "support/TempDir.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <sys/acl.h>

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

TEST(FileSystemItem, MissingPathIsAFileThatDoesNotExistAndStaysMissing) {
    TempDir dir;
    FVFileSystemItem item(dir / "missing");
    EXPECT_FALSE(item.fileExists());
    EXPECT_EQ(item.fileType(), FVFileType::None);
    EXPECT_TRUE(item.isFile());
    EXPECT_EQ(item.fileSize(), 0u);
    writeFile(dir / "missing", "now here");
    EXPECT_FALSE(item.fileExists()) << "the first look is kept";
}

TEST(FileSystemItem, TypesAreThoseOfTheItemItself) {
    TempDir dir;
    makeDirs(dir / "folder");
    ASSERT_EQ(symlink("folder", (dir / "link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    writeFile(dir / "file", "12345");
    chmod((dir / "file").c_str(), 04751);

    auto link = FVFileSystemItem::itemWithPath(dir / "link");
    EXPECT_EQ(link->fileType(), FVFileType::SymbolicLink);
    EXPECT_TRUE(link->isFile());
    EXPECT_FALSE(FVFileSystemItem(dir / "folder").isFile());
    EXPECT_EQ(FVFileSystemItem(dir / "fifo").fileType(), FVFileType::Unknown);
    FVFileSystemItem file(dir / "file");
    EXPECT_EQ(file.fileType(), FVFileType::Regular);
    EXPECT_EQ(file.fileSize(), 5u);
    EXPECT_EQ(file.posixPermissions(), 04751);
}

TEST(FileSystemItem, ModificationDateDropsTheNanoseconds) {
    TempDir dir;
    writeFile(dir / "a", "");
    struct timespec late[2] = {{0, UTIME_OMIT}, {1700000000, 900000000}};
    utimensat(AT_FDCWD, (dir / "a").c_str(), late, 0);
    EXPECT_EQ(FVFileSystemItem(dir / "a").fileModificationDate(), 1700000000);
}

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
    EXPECT_EQ(FVAttributeSignature::xattrNameAndDataStringForFileAtPath(dir / "a"), "user.one:<780079>\n");
    // Access-control lists count only where they are copied, or a file with one would be copied
    // on every run with their cloning off.
    acl_t acl = acl_from_text("u::rw-,u:65534:r--,g::r--,m::r--,o::r--");
    if (acl && acl_set_file((dir / "a").c_str(), ACL_TYPE_ACCESS, acl) == 0) {
        EXPECT_FALSE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b", true));
        EXPECT_TRUE(FVAttributeSignature::xattrIdentialforFileAtPath(dir / "a", dir / "b", false));
    }
    if (acl) acl_free(acl);
    EXPECT_FALSE(FVAttributeSignature::xattrIdentialforFileAtPath("", dir / "b"));
    EXPECT_TRUE(FVExtendedAttributes::isSkipped("com.apple.quarantine"));
    EXPECT_TRUE(FVExtendedAttributes::isSkipped("com.apple.FinderInfo"));
    EXPECT_FALSE(FVExtendedAttributes::isSkipped("user.com.apple.FinderInfo"));
}

TEST(FileManager, LockAndUnlockTheImmutableFlag) {
    TempDir dir;
    if (!canSetImmutable(dir.path())) GTEST_SKIP() << "the immutable flag cannot be set here";
    makeDirs(dir / "tree/sub");
    writeFile(dir / "tree/sub/f", "x");
    writeFile(dir / "plain", "x");
    EXPECT_FALSE(FVInodeFlags::unlockFile(dir / "plain"));
    FVInodeFlags::lockFile(dir / "plain");
    EXPECT_TRUE(isImmutable(dir / "plain"));
    EXPECT_TRUE(FVInodeFlags::unlockFile(dir / "plain"));
    EXPECT_FALSE(isImmutable(dir / "plain"));
    // Append-only refuses a rename as immutable does (a log file mirrored from a source).
    {
        FVFd fd(open((dir / "plain").c_str(), O_RDONLY | O_CLOEXEC));
        int flags = 0;
        ASSERT_EQ(ioctl(fd.get(), FS_IOC_GETFLAGS, &flags), 0);
        flags |= FS_APPEND_FL;
        ASSERT_EQ(ioctl(fd.get(), FS_IOC_SETFLAGS, &flags), 0);
    }
    EXPECT_NE(rename((dir / "plain").c_str(), (dir / "moved").c_str()), 0);
    EXPECT_TRUE(FVInodeFlags::unlockFile(dir / "plain"));
    EXPECT_EQ(rename((dir / "plain").c_str(), (dir / "moved").c_str()), 0);

    for (const char* p : {"tree/sub/f", "tree/sub", "tree"}) FVInodeFlags::lockFile(dir / p);
    FVInodeFlags::unlockRecursively(dir / "tree");
    for (const char* p : {"tree/sub/f", "tree/sub", "tree"}) EXPECT_FALSE(isImmutable(dir / p)) << p;
}
