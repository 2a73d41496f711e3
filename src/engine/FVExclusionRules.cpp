#include "engine/FVExclusionRules.h"

namespace ferrovane {

namespace {

std::string_view lastComponent(std::string_view path) {
    auto slash = path.find_last_of('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool hasComponent(std::string_view path, std::string_view component) {
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t end = path.find('/', pos);
        if (end == std::string_view::npos) end = path.size();
        if (path.substr(pos, end - pos) == component) return true;
        pos = end + 1;
    }
    return false;
}

}  // namespace

bool FVExclusionRules::fileShouldBeExcluded(const std::string& path, const std::vector<std::string>& patterns,
                                            const std::string* currentSourceItemPath) {
    for (const std::string& pattern : patterns) {
        if (pattern.starts_with('/')) {
            if (currentSourceItemPath && currentSourceItemPath->starts_with(pattern)) continue;
            if (pattern.ends_with('/')) {
                if (path.starts_with(pattern)) return true;
            } else if (path.starts_with(pattern) && hasComponent(path, lastComponent(pattern))) {
                return true;
            }
        } else if (path.ends_with(pattern)) {
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
        "/.Spotlight-V100", "/.Trashes", "/__removed", "/__changed", "/.ferrovane.conf", "/.DocumentRevisions-V100"};
    return paths;
}

}  // namespace ferrovane
