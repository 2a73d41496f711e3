#include "engine/restore/FVRestoreTarget.h"

#include "fs/FVFileStatus.h"
#include "fs/FVPathResolution.h"
#include "fs/FVText.h"

#include <sys/stat.h>

namespace ferrovane {

FVRestoreTarget FVRestoreTarget::confined(std::string from, const std::string& anchor, const std::string& to) {
    std::string existing = anchor;
    struct stat st {};
    while (existing != "/" && !(FVFileStatus::stat(existing.c_str(), &st) == 0 && S_ISDIR(st.st_mode)))
        existing = FVText::deletingLastPathComponent(existing);
    std::string root;
    if (!FVPathResolution::realPath(existing.c_str(), root)) root = existing;
    std::string rest = existing == "/" ? to : to.substr(existing.size());
    std::string target = root == "/" ? (rest.empty() ? "/" : rest) : root + rest;
    return {std::move(from), std::move(target), std::move(root), {}};
}

std::optional<FVRestoreTarget> FVRestoreTarget::forVersion(const FVVersionCatalog& catalog, const std::string& mirrorPath,
                                                           const std::string& versionPath, const std::string& toFolder,
                                                           std::string* problem) {
    auto original = catalog.originalPath(mirrorPath);
    if (!original && toFolder.empty()) {
        *problem = "no source of the destination holds it";
        return std::nullopt;
    }
    if (toFolder.empty()) {
        const std::string source = *catalog.sourceHolding(mirrorPath);
        FVRestoreTarget target = confined(versionPath, FVText::deletingLastPathComponent(source), *original);
        // Every folder from the item's own up to its source's mirror was backed up.
        const std::string sourceMirror = catalog.sourceMirrorPath(source);
        for (std::string parent = mirrorPath; parent.size() > sourceMirror.size();) {
            parent = parent.substr(0, parent.rfind('/'));
            target.parentMirrors.push_back(catalog.layout().destinationPath(parent));
        }
        return target;
    }
    std::string name = FVText::lastPathComponent(original.value_or(mirrorPath));
    std::string target = name.empty() || name == "/" ? toFolder : (toFolder == "/" ? "" : toFolder) + "/" + name;
    return confined(versionPath, toFolder, target);
}

}  // namespace ferrovane
