// What a destination's type tells before any probe. What the probe finds on each file system is
// the fault suite's file-system part.

#include "fs/FVDestinationProbe.h"

#include <gtest/gtest.h>

using namespace ferrovane;

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
    // sshfs: its latency decides how many copies run at once; it keeps no attributes and no link identity.
    EXPECT_EQ(FVDestinationProbe::describe(FVDestinationProbe::defaultsForType("fuse.sshfs")),
              "fuse.sshfs, over the network, exact times, case-sensitive, no rename that refuses to replace, "
              "no extended attributes, no hard links, names up to 255 bytes");
}
