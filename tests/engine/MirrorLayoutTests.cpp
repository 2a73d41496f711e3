// Where a destination keeps each source's mirror and archives under both placements, the way
// back to the original paths, and the source lists whose mirrors would collide.

#include "engine/config/FVMirrorLayout.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

using namespace ferrovane;

namespace {

constexpr const char* kStamp = "2026-01-01 10.00.00 +0000";

}  // namespace

TEST(MirrorLayout, MapsSourcesToMirrorAndArchivesAndBackUnderBothPlacements) {
    const FVMirrorLayout byName("/backup", true, {"/home/me/Documents", "/etc"});
    const FVMirrorLayout byPath("/backup/", false, {"/home/me/Documents", "/etc"});
    const FVMirrorLayout whole("/mnt/backup", false, {"/"});
    const FVMirrorLayout rootDestination("/", true, {"/home/me/Documents"});
    struct Case {
        const FVMirrorLayout& layout;
        const char* original;
        const char* mirror;
        const char* removed;  // the archived version of a removed item
    };
    const Case cases[] = {
        {byName, "/home/me/Documents", "/backup/Documents", "/backup/__removed/2026-01-01 10.00.00 +0000/Documents"},
        {byName, "/home/me/Documents/a/b.txt", "/backup/Documents/a/b.txt",
         "/backup/__removed/2026-01-01 10.00.00 +0000/Documents/a/b.txt"},
        {byName, "/etc/hosts", "/backup/etc/hosts", "/backup/__removed/2026-01-01 10.00.00 +0000/etc/hosts"},
        {byPath, "/home/me/Documents/a/b.txt", "/backup/home/me/Documents/a/b.txt",
         "/backup/__removed/2026-01-01 10.00.00 +0000/home/me/Documents/a/b.txt"},
        {byPath, "/etc", "/backup/etc", "/backup/__removed/2026-01-01 10.00.00 +0000/etc"},
        {whole, "/etc/hosts", "/mnt/backup/etc/hosts", "/mnt/backup/__removed/2026-01-01 10.00.00 +0000/etc/hosts"},
        {whole, "/", "/mnt/backup", "/mnt/backup/__removed/2026-01-01 10.00.00 +0000"},
        {rootDestination, "/home/me/Documents/x", "/Documents/x", "/__removed/2026-01-01 10.00.00 +0000/Documents/x"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.original);
        std::optional<std::string> relative = c.layout.relativePathOfOriginal(c.original);
        ASSERT_TRUE(relative);
        EXPECT_EQ(c.layout.destinationPath(*relative), c.mirror);
        EXPECT_EQ(c.layout.archivePath(FVArchiveKind::Removed, kStamp, *relative), c.removed);
        for (const char* inside : {c.mirror, c.removed}) {
            EXPECT_EQ(c.layout.relativePathOfDestinationPath(inside), relative) << inside;
            EXPECT_EQ(c.layout.originalPath(*relative), c.original);
        }
        std::string changed = c.layout.archivePath(FVArchiveKind::Changed, kStamp, *relative);
        EXPECT_EQ(c.layout.relativePathOfDestinationPath(changed), relative) << changed;
    }
    for (const std::string& source : byName.sources())
        EXPECT_EQ(byName.mirrorPath(source), byName.destinationPath(*byName.relativePathOfOriginal(source)));
    EXPECT_EQ(whole.mirrorPath("/"), "/mnt/backup");
    // The deepest source places a path (nested sources are fine where their mirrors are apart).
    const FVMirrorLayout nested("/backup", true, {"/a", "/a/b"});
    EXPECT_EQ(nested.relativePathOfOriginal("/a/b/x"), "/b/x");
    EXPECT_EQ(nested.sourceHolding("/b/x"), "/a/b");

    EXPECT_EQ(byName.relativePathOfOriginal("/home/me/Music/x"), std::nullopt);
    EXPECT_EQ(byName.relativePathOfOriginal("/home/me/DocumentsOld/x"), std::nullopt);
    EXPECT_EQ(byName.originalPath("/Other/x"), std::nullopt);
    EXPECT_EQ(byName.relativePathOfDestinationPath("/backupOld/Documents"), std::nullopt);
    EXPECT_EQ(byName.relativePathOfDestinationPath(std::string("/backup/__changed/") + kStamp), "");
}

TEST(MirrorLayout, RefusesSourceListsWhoseMirrorsCollideOrLandOnReservedNames) {
    using Mode = FVSourceMode;
    struct Case {
        bool folderPerSource;
        std::vector<std::pair<const char*, Mode>> items;
        bool caseInsensitive;
        // The names the message must hold; none when the list is fine.
        std::vector<const char*> named;
    };
    const Mode B = Mode::Backup;
    // The common collisions (one last name, nesting, reserved names, paths that are not plain, a
    // source inside the destination, twins and a reserved name in another case on exFAT) are the
    // fault suite's layout part, against a model of these rules; here are the edges it does not
    // reach.
    const Case cases[] = {
        {true, {{"/a/Docs", B}, {"/a/Docs", B}}, false, {"/a/Docs"}},
        {false, {{"/ab", B}, {"/a", B}}, false, {}},
        {false, {{"/x/A", B}, {"/x/a", B}}, true, {"/x/A", "/x/a"}},
        {true, {{"/a/\xc3\x9c" "ber", B}, {"/b/\xc3\xbc" "ber", B}}, true, {"/a/\xc3\x9c" "ber", "/b/\xc3\xbc" "ber", "case"}},
        {false, {{"/Data", B}, {"/data/b", B}}, true, {"/Data", "/data/b", "case"}},
        {false, {{"/Data/a", B}, {"/data/b", B}}, true, {}},
        {true, {{"/x/Report", B}, {"/y/Reports", B}}, true, {}},
        {false, {{"/home/__changed", B}}, false, {}},
        {true, {{"/x/__changed2", B}}, false, {}},
        {true, {{"/x/__CHANGED", B}}, false, {}},
        {true, {{"", B}}, false, {"\"\""}},
        {true, {{"/a/./Docs", B}}, false, {"/a/./Docs"}},
        {true, {{"/backup", B}}, false, {"/backup"}},
        {true, {{"/backupOld", B}}, false, {}},
    };
    for (const Case& c : cases) {
        std::vector<FVSourceItemPtr> items;
        std::string list;
        for (const auto& [path, mode] : c.items) {
            items.push_back(FVSourceItem::make(path, mode));
            list += std::string(" ") + path;
        }
        SCOPED_TRACE(fmt::format("{}{}{}", c.folderPerSource ? "by name:" : "by path:", list,
                                 c.caseInsensitive ? " (case-insensitive)" : ""));
        FVDestinationProfile profile;
        profile.caseInsensitive = c.caseInsensitive;
        std::optional<std::string> problem = FVMirrorLayout::fromItems("/backup", c.folderPerSource, items).validate(profile);
        ASSERT_EQ(problem.has_value(), !c.named.empty()) << problem.value_or("");
        for (const char* name : c.named) EXPECT_NE(problem->find(name), std::string::npos) << *problem << " lacks " << name;
    }
}
