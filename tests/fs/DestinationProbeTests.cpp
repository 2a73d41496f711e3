// The probe of a destination, on a file system this process can mount: what it finds, and that it
// leaves the destination as it was.

#include "fs/FVDestinationProbe.h"
#include "fs/FVMountTable.h"
#include "support/TempDir.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

struct timespec modificationTime(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mtim;
}

}  // namespace

TEST(DestinationProbe, FindsWhatTmpfsHoldsAndLeavesItAsItWas) {
    TempDir dir;
    EXPECT_EQ(FVMountTable::fileSystemTypeAtPath("/proc/self"), "proc");
    EXPECT_EQ(FVMountTable::fileSystemTypeAtPath(dir / "missing"), "");
    makeDirs(dir / "mnt");
    if (mount("tmpfs", (dir / "mnt").c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "cannot mount tmpfs";
    const std::string root = dir / "mnt";
    writeFile(root + "/.ferrovane.conf", "x");
    // A probe folder left by a run that was killed.
    makeDirs(root + "/.ferrovane-tmp-probe/Renamed");
    writeFile(root + "/.ferrovane-tmp-probe/Renamed/f", "x");
    const timespec before = modificationTime(root);

    FVDestinationProbe probe(root, ".ferrovane-tmp-probe");
    FVDestinationProfile profile = probe.probe();
    EXPECT_EQ(probe.problem(), "");
    EXPECT_EQ(profile.fileSystemType, "tmpfs");
    EXPECT_EQ(profile.timeGranularityNs, 1);
    EXPECT_FALSE(profile.caseInsensitive);
    EXPECT_TRUE(profile.renameNoReplace);
    EXPECT_TRUE(profile.renameKeepsTimes);
    EXPECT_TRUE(profile.keepsModes);
    EXPECT_EQ(profile.keepsOwners, geteuid() == 0 || profile.keepsModes);
    EXPECT_TRUE(profile.symbolicLinks);
    EXPECT_TRUE(profile.extendedAttributes && profile.hardLinks);
    EXPECT_EQ(profile.maxNameLength, 255u);
    EXPECT_EQ(profile.refusedNameBytes, "");
    EXPECT_FALSE(profile.utf8NamesOnly);
    EXPECT_FALSE(exists(root + "/.ferrovane-tmp-probe"));
    const timespec after = modificationTime(root);
    EXPECT_EQ(after.tv_sec, before.tv_sec);
    EXPECT_EQ(after.tv_nsec, before.tv_nsec);

    FVDestinationProfile looked = probe.probeWithoutWriting(".ferrovane.conf");
    EXPECT_FALSE(looked.caseInsensitive);
    EXPECT_EQ(looked.fileSystemType, "tmpfs");
    EXPECT_EQ(FVDestinationProbe::describe(profile), "tmpfs, exact times, case-sensitive, names up to 255 bytes");
    umount(root.c_str());
}

TEST(DestinationProbe, KnowsTheLimitsOfFatLikeTypesWithoutTrying) {
    FVDestinationProfile fat = FVDestinationProbe::defaultsForType("fuse.fusefat");
    EXPECT_EQ(FVDestinationProbe::describe(fat),
              "fuse.fusefat, times to 2 s, case-insensitive, no rename that refuses to replace, renames reset times, "
              "no owners, no modes, no symbolic links, no extended attributes, no hard links, names up to 255 bytes, "
              "UTF-8 names only, refuses \\:*?\"<>| and control characters in names");
    // exFAT or NTFS: only what both share, case and links are left to a look-up.
    EXPECT_EQ(FVDestinationProbe::describe(FVDestinationProbe::defaultsForType("fuseblk")),
              "fuseblk, times to 1 s, case-sensitive, no rename that refuses to replace, no owners, no modes, "
              "names up to 255 bytes, UTF-8 names only");
}
