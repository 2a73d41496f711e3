// Which source paths are left out of the mirror.

#include "engine/FVExclusionRules.h"

#include <gtest/gtest.h>

using ferrovane::FVExclusionRules;

TEST(ExclusionRules, PatternsMatchWholeComponentsOnly) {
    struct Case {
        const char* path;
        std::vector<std::string> patterns;
        bool excluded;
        const char* sourceRoot = nullptr;
    };
    const Case cases[] = {
        {"/Users/a/MusicOld/x", {"/Users/a/Music"}, false},
        {"/Users/a/MusicOld/Music/song", {"/Users/a/Music"}, false},
        {"/Users/a/Music/x", {"/Users/a/Music"}, true},
        {"/Users/a/Music", {"/Users/a/Music"}, true},
        {"/Volumes", {"/Volumes/"}, false},  // a folder pattern keeps the folder itself
        {"/Volumes/Disk", {"/Volumes/"}, true},
        {"/VolumesOld/Disk", {"/Volumes/"}, false},
        // A name pattern matches whole trailing components, never a part of a name.
        {"/x/.DS_Store", {".DS_Store"}, true},
        {"/x/foo.DS_Store", {".DS_Store"}, false},
        {"/var/log", {"log"}, true},
        {"/src/catalog", {"log"}, false},
        {"/src/changelog", {"log"}, false},
        {"/var/log/syslog", {"log"}, false},
        {"/home/a/Library/Caches", {"Library/Caches"}, true},
        {"/home/a/MyLibrary/Caches", {"Library/Caches"}, false},
        {"/x/.DocumentRevisions-V100", {".DocumentRevisions-V100/"}, false},
        {"/a", {}, false},
        // An absolute pattern covering the source item is ignored; name and later patterns still apply.
        {"/Users/a/Documents/x", {"/Users/a/"}, false, "/Users/a/Documents"},
        {"/Users/a/Documents/x", {"/Users/a/Documents"}, false, "/Users/a/Documents"},
        {"/Users/a/Documents/x.tmp", {"/Users/a/", "x.tmp"}, true, "/Users/a/Documents"},
        {"/Users/a/Documents/cache/y", {"/Users/a/", "/Users/a/Documents/cache/"}, true, "/Users/a/Documents"},
    };
    for (const Case& c : cases) {
        std::string root = c.sourceRoot ? c.sourceRoot : "";
        EXPECT_EQ(FVExclusionRules::fileShouldBeExcluded(c.path, c.patterns, c.sourceRoot ? &root : nullptr), c.excluded)
            << c.path;
    }
}

TEST(ExclusionRules, RootCloneListCoversLinuxVirtualTrees) {
    const auto& patterns = FVExclusionRules::rootClonePatterns();
    for (const char* path : {"/proc/1/status", "/sys/kernel", "/dev/null", "/run/lock", "/tmp/x", "/var/tmp/y",
                             "/mnt/disk/z", "/media/usb/a", "/lost+found/#123", "/home/a/Library/Caches"})
        EXPECT_TRUE(FVExclusionRules::fileShouldBeExcluded(path, patterns, nullptr)) << path;
    for (const char* path : {"/proc", "/tmp", "/etc/passwd", "/var/lib/x", "/usr/share/lost+foundry"})
        EXPECT_FALSE(FVExclusionRules::fileShouldBeExcluded(path, patterns, nullptr)) << path;
}
