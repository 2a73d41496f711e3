// Which source paths are left out of the mirror. Exclude files and items marked nodump are the
// command line's, on whole runs.

#include "engine/analysis/FVExclusionRules.h"
#include "engine/analysis/FVSourceExclusions.h"
#include "engine/analysis/FVSourceListing.h"
#include "engine/config/FVExcludePattern.h"
#include "fs/FVCacheDirectoryTag.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

using namespace ferrovane;

TEST(ExclusionRules, PatternsMatchWholeComponentsOnly) {
    struct Case {
        const char* path;
        std::vector<std::string> patterns;
        bool excluded;
        const char* sourceRoot = nullptr;
    };
    const Case cases[] = {
        {"/Users/a/MusicOld/Music/song", {"/Users/a/Music"}, false},
        {"/Users/a/Music/x", {"/Users/a/Music"}, true},
        {"/Users/a/Music", {"/Users/a/Music"}, true},
        {"/Volumes", {"/Volumes/"}, false},  // a folder pattern keeps the folder itself
        {"/Volumes/Disk", {"/Volumes/"}, true},
        {"/VolumesOld/Disk", {"/Volumes/"}, false},
        // A name pattern matches whole trailing components, never a part of a name.
        {"/x/.DS_Store", {".DS_Store"}, true},
        {"/var/log", {"log"}, true},
        {"/src/catalog", {"log"}, false},
        {"/var/log/syslog", {"log"}, false},
        {"/home/a/Library/Caches", {"Library/Caches"}, true},
        {"/home/a/MyLibrary/Caches", {"Library/Caches"}, false},
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

TEST(ExclusionRules, UserPatternsMatchAsRsyncAndGitignoreDo) {
    struct Case {
        const char* pattern;
        const char* path;  // below the source root
        bool isDirectory;
        bool excluded;
    };
    const Case cases[] = {
        // A bare name, at any depth, never part of a name.
        {"node_modules", "node_modules", true, true},
        {"node_modules", "web/app/node_modules", true, true},
        {"node_modules", "web/node_modules_old", true, false},
        // A name glob: "*" takes dot files and any bytes, never a slash.
        {"*.tmp", "a/b/x.tmp", false, true},
        {"*.tmp", ".tmp", false, true},
        {"*.tmp", "x.tmp/y", false, false},
        {"*.tmp", "caf\xe9.tmp", false, true},
        {"report-?.[ch]", "src/report-1.c", false, true},
        {"report-?.[ch]", "src/report-12.c", false, false},
        {"\\*.txt", "*.txt", false, true},
        // "**" for any number of folders.
        {"**/build", "a/b/build", true, true},
        {"src/**/gen", "src/gen", true, true},
        {"src/**/gen", "lib/src/gen", true, false},
        {"logs/**", "logs/x/y.log", false, true},
        {"logs/**", "logs", true, false},
        // A trailing slash: folders only.
        {"cache/", "a/cache", true, true},
        {"cache/", "a/cache", false, false},
        // A slash anywhere else anchors the pattern at the source root.
        {"src/*/cache", "src/app/cache", true, true},
        {"src/*/cache", "src/app/sub/cache", true, false},
        {"/build", "build", true, true},
        {"/build", "a/build", true, false},
        {"*.tmp", "", true, false},  // the source root itself
    };
    for (const Case& c : cases) {
        std::string why;
        std::optional<FVExcludePattern> pattern = FVExcludePattern::parse(c.pattern, &why);
        ASSERT_TRUE(pattern) << c.pattern << ": " << why;
        EXPECT_EQ(pattern->matches(c.path, c.isDirectory), c.excluded) << c.pattern << " ~ " << c.path;
    }
    for (const char* bad : {"", "/", "//", "a\tb"}) EXPECT_FALSE(FVExcludePattern::parse(bad)) << bad;
}

namespace {

// The entries a walk of root leaves out, by path below it.
std::vector<std::string> leftOut(const std::string& root, const FVOptions& options) {
    FVSourceExclusions exclusions(options);
    FVSourceListing::Rules rules;
    rules.isExcluded = [](const std::string&) { return false; };
    rules.exclusions = &exclusions;
    FVSourceListing listing(root, root + ".mirror", std::move(rules));
    std::vector<std::string> excluded;
    std::vector<FVSourceListing::Entry> batch;
    while (listing.next(batch))
        for (const FVSourceListing::Entry& entry : batch)
            if (entry.kind == FVSourceListing::Entry::Kind::Excluded) excluded.emplace_back(entry.relativePath());
    std::sort(excluded.begin(), excluded.end());
    return excluded;
}

}  // namespace

TEST(ExclusionRules, TaggedCacheFoldersKeepOnlyTheirTag) {
    ferrovane::test::TempDir dir;
    const std::string signature(FVCacheDirectoryTag::kSignature);
    ferrovane::test::buildTree(dir.path(), {
        {"src/thumbs/CACHEDIR.TAG", signature + "\n# made by a viewer\n"},
        {"src/thumbs/a.png", "a"},
        {"src/thumbs/sub/b.png", "b"},
        {"src/short/CACHEDIR.TAG", signature.substr(0, 20)},
        {"src/short/keep", "k"},
        {"src/wrong/CACHEDIR.TAG", "Signature: 00000000000000000000000000000000"},
        {"src/wrong/keep", "k"},
        {"src/folder/CACHEDIR.TAG/x", "a folder named like the tag is none"},
        {"src/folder/keep", "k"},
        {"src/plain/CACHEDIR.TAG.bak", signature},
    });
    FVOptions options;
    EXPECT_EQ(leftOut(dir / "src", options), std::vector<std::string>{});
    options.excludeCacheFolders = true;
    EXPECT_EQ(leftOut(dir / "src", options), (std::vector<std::string>{"/thumbs/a.png", "/thumbs/sub"}));
    // A tagged source root keeps its tag and loses the rest, like any tagged folder.
    EXPECT_EQ(leftOut(dir / "src/thumbs", options), (std::vector<std::string>{"/a.png", "/sub"}));
}
