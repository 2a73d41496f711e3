// Which source paths are left out of the mirror.

#include "engine/FVExclusionRules.h"

#include <gtest/gtest.h>

using ferrovane::FVExclusionRules;

namespace {
bool excluded(const std::string& path, std::vector<std::string> patterns, const std::string* root = nullptr) {
    return FVExclusionRules::fileShouldBeExcluded(path, patterns, root);
}
}  // namespace

TEST(ExclusionRules, ItemPatternMatchesWholeComponentsOnly) {
    EXPECT_FALSE(excluded("/Users/a/MusicOld/x", {"/Users/a/Music"}));
    EXPECT_TRUE(excluded("/Users/a/Music/x", {"/Users/a/Music"}));
    EXPECT_TRUE(excluded("/Users/a/Music", {"/Users/a/Music"}));
}

TEST(ExclusionRules, FolderPatternKeepsTheFolderItself) {
    EXPECT_FALSE(excluded("/Volumes", {"/Volumes/"}));
    EXPECT_TRUE(excluded("/Volumes/Disk", {"/Volumes/"}));
}

TEST(ExclusionRules, NamePatternIsAPlainSuffix) {
    EXPECT_TRUE(excluded("/x/foo.DS_Store", {".DS_Store"}));
    EXPECT_TRUE(excluded("/home/a/Library/Caches", {"Library/Caches"}));
    EXPECT_FALSE(excluded("/x/.DocumentRevisions-V100", {".DocumentRevisions-V100/"}));
}

TEST(ExclusionRules, AbsolutePatternCoveringTheSourceItemIsIgnored) {
    std::string root = "/Users/a/Documents";
    EXPECT_FALSE(excluded("/Users/a/Documents/x", {"/Users/a/"}, &root));
    EXPECT_FALSE(excluded("/Users/a/Documents/x", {"/Users/a/Documents"}, &root));
    // A name pattern still applies, and a later pattern still matches.
    EXPECT_TRUE(excluded("/Users/a/Documents/x.tmp", {"/Users/a/", ".tmp"}, &root));
    EXPECT_TRUE(excluded("/Users/a/Documents/cache/y", {"/Users/a/", "/Users/a/Documents/cache/"}, &root));
}

TEST(ExclusionRules, EmptyListExcludesNothing) { EXPECT_FALSE(excluded("/a", {})); }

TEST(ExclusionRules, RootCloneListCoversLinuxVirtualTrees) {
    const auto& patterns = FVExclusionRules::rootClonePatterns();
    for (const char* path : {"/proc/1/status", "/sys/kernel", "/dev/null", "/run/lock", "/tmp/x", "/var/tmp/y",
                             "/mnt/disk/z", "/media/usb/a", "/lost+found/#123", "/home/a/Library/Caches"}) {
        EXPECT_TRUE(excluded(path, patterns)) << path;
    }
    for (const char* path : {"/proc", "/tmp", "/etc/passwd", "/var/lib/x", "/usr/share/lost+foundry"}) {
        EXPECT_FALSE(excluded(path, patterns)) << path;
    }
}
