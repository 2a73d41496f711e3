#include "engine/config/FVHookApprovals.h"

#include "engine/config/FVPlist.h"
#include "fs/FVAtomicFile.h"
#include "fs/FVFileModes.h"
#include "fs/FVFileStatus.h"
#include "fs/FVPrivateFolder.h"
#include "fs/FVRemovals.h"
#include "platform/FVHomeDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ferrovane {

namespace {

constexpr size_t kLargestFile = 1 << 20;

// A UUID names a file only when it is letters, digits and dashes.
bool isUsableIdentity(const std::string& uuid) {
    return !uuid.empty() && uuid.size() <= 64 &&
           std::all_of(uuid.begin(), uuid.end(), [](unsigned char c) { return std::isalnum(c) || c == '-'; });
}

}  // namespace

const char* hookKindName(FVHookKind kind) { return kind == FVHookKind::Before ? "before" : "after"; }

std::string FVHookApprovals::defaultFolder() {
    if (const char* override = std::getenv("FERROVANE_HOOK_APPROVAL_DIRECTORY"); override && *override == '/')
        return override;
    if (geteuid() == 0) return "/var/lib/Ferrovane/hooks";
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg && *xdg == '/') return std::string(xdg) + "/Ferrovane/hooks";
    std::string home = homeDirectory();
    return home.empty() ? std::string() : home + "/.local/state/Ferrovane/hooks";
}

std::optional<std::string> FVHookApprovals::approved(const std::string& uuid, FVHookKind kind) const {
    if (folder_.empty() || !isUsableIdentity(uuid)) return std::nullopt;
    const std::string path = pathOf(uuid);
    struct stat st {};
    if (FVFileStatus::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 022))
        return std::nullopt;
    std::string bytes;
    if (!FVAtomicFile::read(path, kLargestFile, bytes, nullptr)) return std::nullopt;
    PlistParseResult parsed = parsePlist(bytes);
    const PlistDictPtr* root = parsed.value ? parsed.value->dict() : nullptr;
    if (!root || !*root) return std::nullopt;
    return (*root)->stringValue(hookKindName(kind));
}

bool FVHookApprovals::isApproved(const std::string& uuid, FVHookKind kind, const std::string& command) const {
    std::optional<std::string> known = approved(uuid, kind);
    return known && !command.empty() && *known == command;
}

bool FVHookApprovals::approve(const std::string& uuid, FVHookKind kind, const std::string& command,
                              std::string* error) {
    if (folder_.empty() || !isUsableIdentity(uuid)) {
        if (error) *error = folder_.empty() ? "there is no home folder to keep approvals in" : "not a destination identity";
        return false;
    }
    if (!FVPrivateFolder::make(folder_, error)) return false;
    auto dict = std::make_shared<PlistDict>();
    for (FVHookKind other : {FVHookKind::Before, FVHookKind::After})
        if (other != kind)
            if (std::optional<std::string> kept = approved(uuid, other)) dict->set(hookKindName(other), *kept);
    if (!command.empty()) dict->set(hookKindName(kind), command);
    const std::string path = pathOf(uuid);
    if (dict->size() == 0) {
        if (FVRemovals::unlink(path.c_str()) != 0 && errno != ENOENT) {
            if (error) *error = "cannot remove " + path + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }
    if (!FVAtomicFile::write(path, serializePlistXML(PlistValue(dict)), error)) return false;
    // Only the owner may change what runs as the owner.
    if (FVFileModes::chmod(path.c_str(), 0600) != 0) {
        if (error) *error = "cannot make " + path + " private: " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace ferrovane
