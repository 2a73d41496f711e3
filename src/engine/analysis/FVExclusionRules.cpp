#include "engine/analysis/FVExclusionRules.h"

#include "engine/config/FVMirrorLayout.h"

namespace ferrovane {

namespace {

// "/a/b/" holds what lies below /a/b; "/a/b" holds /a/b itself and what lies below it.
bool absolutePatternHolds(std::string_view pattern, std::string_view path) {
    if (pattern.ends_with('/')) return path.starts_with(pattern);
    return path.starts_with(pattern) && (path.size() == pattern.size() || path[pattern.size()] == '/');
}

// "name" and "a/name" match whole trailing components: "log" leaves out ".../log", not "catalog".
bool namePatternMatches(std::string_view pattern, std::string_view path) {
    return path.ends_with(pattern) && (path.size() == pattern.size() || path[path.size() - pattern.size() - 1] == '/');
}

}  // namespace

bool FVExclusionRules::fileShouldBeExcluded(const std::string& path, const std::vector<std::string>& patterns,
                                            const std::string* currentSourceItemPath) {
    for (const std::string& pattern : patterns) {
        if (pattern.starts_with('/')) {
            if (currentSourceItemPath && absolutePatternHolds(pattern, *currentSourceItemPath)) continue;
            if (absolutePatternHolds(pattern, path)) return true;
        } else if (namePatternMatches(pattern, path)) {
            return true;
        }
    }
    return false;
}

const std::vector<FVExclusionRules::NamedPattern>& FVExclusionRules::perItemNamePatterns() {
    // The revisions pattern keeps its trailing slash; as a suffix it matches no walked path.
    static const std::vector<NamedPattern> patterns = {
        {".fseventsd", ".fseventsd"},
        {".Spotlight-V100", ".Spotlight-V100"},
        {".DocumentRevisions-V100", ".DocumentRevisions-V100/"},
        {".Trashes", ".Trashes"},
        {".vol", ".vol"},
        {".TemporaryItems", ".TemporaryItems"},
    };
    return patterns;
}

const std::vector<std::string>& FVExclusionRules::rootCloneConditionalNames() {
    static const std::vector<std::string> names = {".PKInstallSandboxManager",
                                                   ".PKInstallSandboxManager-SystemSoftware"};
    return names;
}

const std::vector<std::string>& FVExclusionRules::rootClonePatterns() {
    // The Linux virtual and volatile trees follow the inherited list.
    static const std::vector<std::string> patterns = {
        "/private/var/vm/", "/private/var/folders/", "/private/var/db/dyld/", "Library/Caches",
        "/Network/",        "/Volumes/",             "/automount/",           "/dev/",
        "/proc/",           "/sys/",                 "/run/",                 "/tmp/",
        "/var/tmp/",        "/mnt/",                 "/media/",               "/lost+found",
    };
    return patterns;
}

const std::vector<std::string>& FVExclusionRules::rootCloneProtectedPaths() {
    static const std::vector<std::string> paths = {
        "/.com.apple.timemachine.supported", "/.VolumeIcon.icns", "/.hotfiles.btree", "/.fseventsd",
        "/.Spotlight-V100", "/.Trashes", std::string("/") + FVMirrorLayout::kRemovedFolder,
        std::string("/") + FVMirrorLayout::kChangedFolder, std::string("/") + FVMirrorLayout::kRunsFolder,
        std::string("/") + FVMirrorLayout::kConfigurationName, "/.DocumentRevisions-V100"};
    return paths;
}

}  // namespace ferrovane
