#include "engine/restore/FVTrash.h"

#include "fs/FVConfinedDirectory.h"
#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVItemCreation.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVRemovals.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

namespace ferrovane {

namespace {

constexpr int kMaximumNameTries = 10000;

bool isRealDirectory(const std::string& path, struct stat* st = nullptr) {
    struct stat local {};
    struct stat& s = st ? *st : local;
    return FVFileStatus::lstat(path.c_str(), &s) == 0 && S_ISDIR(s.st_mode);
}

// A private folder, made when missing; an existing one must be a real folder.
bool ensurePrivateFolder(const std::string& path) {
    if (FVItemCreation::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    return isRealDirectory(path);
}

std::string formatTime(const char* format, std::time_t at) {
    struct tm local {};
    localtime_r(&at, &local);
    char buffer[64];
    size_t n = std::strftime(buffer, sizeof buffer, format, &local);
    return std::string(buffer, n);
}

// The folder at the top of the file system that holds path (its mount point).
std::string topDirectory(const std::string& path, dev_t device) {
    std::string top = path;
    while (top != "/") {
        std::string parent = FVText::deletingLastPathComponent(top);
        struct stat st {};
        if (FVFileStatus::stat(parent.c_str(), &st) != 0 || st.st_dev != device) break;
        top = parent;
    }
    return top;
}

struct TrashFolder {
    std::string root;          // holds files/ and info/
    std::string pathBase;      // "" for absolute Path= values, else the top directory
};

std::optional<TrashFolder> homeTrashFor(dev_t device) {
    std::string trash = FVTrash::homeTrashPath();
    if (trash.empty()) return std::nullopt;
    // The trash and the folders above it are made where missing, on the file system that
    // holds the deepest one that exists.
    std::vector<std::string> missing;
    std::string existing = trash;
    struct stat st {};
    while (FVFileStatus::stat(existing.c_str(), &st) != 0) {
        if (errno != ENOENT || existing == "/") return std::nullopt;
        missing.push_back(existing);
        existing = FVText::deletingLastPathComponent(existing);
    }
    if (st.st_dev != device) return std::nullopt;
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder)
        if (!ensurePrivateFolder(*folder)) return std::nullopt;
    if (!ensurePrivateFolder(trash) || !ensurePrivateFolder(trash + "/files") || !ensurePrivateFolder(trash + "/info"))
        return std::nullopt;
    return TrashFolder{trash, ""};
}

// $topdir/.Trash/$uid when the administrator made $topdir/.Trash (a sticky real folder), else
// $topdir/.Trash-$uid.
std::optional<TrashFolder> topTrashFor(const std::string& path, dev_t device) {
    std::string top = topDirectory(path, device);
    std::string base = top == "/" ? "" : top;
    uid_t uid = geteuid();
    struct stat shared {};
    std::string candidates[2] = {fmt::format("{}/.Trash/{}", base, uid), fmt::format("{}/.Trash-{}", base, uid)};
    bool sharedUsable = isRealDirectory(base + "/.Trash", &shared) && (shared.st_mode & S_ISVTX);
    for (int k = sharedUsable ? 0 : 1; k < 2; ++k) {
        const std::string& trash = candidates[k];
        struct stat st {};
        if (!ensurePrivateFolder(trash) || !ensurePrivateFolder(trash + "/files") ||
            !ensurePrivateFolder(trash + "/info") || FVFileStatus::stat(trash.c_str(), &st) != 0 || st.st_dev != device ||
            st.st_uid != uid)
            continue;
        return TrashFolder{trash, top};
    }
    return std::nullopt;
}

// Reserves a name with its info file (O_EXCL, so two movers never share one), then moves the
// item under that name; the info file goes again when the move fails.
bool moveIntoTrash(const TrashFolder& trash, const std::string& path, std::time_t now, std::string* placedAt,
                   int* error) {
    std::string name = FVText::lastPathComponent(path);
    std::string recorded = path;
    if (!trash.pathBase.empty()) recorded = path.substr(trash.pathBase == "/" ? 1 : trash.pathBase.size() + 1);
    std::string info = fmt::format("[Trash Info]\nPath={}\nDeletionDate={}\n", FVTrash::percentEncoded(recorded),
                                   formatTime("%Y-%m-%dT%H:%M:%S", now));
    for (int k = 1; k <= kMaximumNameTries; ++k) {
        std::string candidate = k == 1 ? name : fmt::format("{}.{}", name, k);
        std::string infoPath = trash.root + "/info/" + candidate + ".trashinfo";
        int fd = FVOpenFiles::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            *error = errno;
            return false;
        }
        bool written = FVFileData::write(fd, info.data(), info.size()) == static_cast<ssize_t>(info.size());
        int writeError = errno;
        if (FVOpenFiles::close(fd) != 0 && written) {
            written = false;
            writeError = errno;
        }
        std::string target = trash.root + "/files/" + candidate;
        const int moveError =
            written ? FVConfinedDirectory::renameWithoutReplacing(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str())
                    : writeError;
        if (moveError == 0) {
            *placedAt = target;
            return true;
        }
        FVRemovals::unlink(infoPath.c_str());
        if (moveError == EEXIST) continue;
        *error = moveError;
        return false;
    }
    *error = EEXIST;
    return false;
}

bool moveBeside(const std::string& path, std::time_t now, std::string* placedAt, int* error) {
    std::string base = fmt::format("{}.replaced-by-ferrovane-{}", path, formatTime("%Y%m%d-%H%M%S", now));
    for (int k = 1; k <= kMaximumNameTries; ++k) {
        std::string candidate = k == 1 ? base : fmt::format("{}-{}", base, k);
        const int moveError = FVConfinedDirectory::renameWithoutReplacing(AT_FDCWD, path.c_str(), AT_FDCWD, candidate.c_str());
        if (moveError == 0) {
            *placedAt = candidate;
            return true;
        }
        if (moveError != EEXIST) {
            *error = moveError;
            return false;
        }
    }
    *error = EEXIST;
    return false;
}

}  // namespace

std::string FVTrash::homeTrashPath() {
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome && dataHome[0] == '/') return std::string(dataHome) + "/Trash";
    const char* home = std::getenv("HOME");
    if (home && home[0] == '/') return std::string(home) + "/.local/share/Trash";
    return "";
}

std::string FVTrash::percentEncoded(const std::string& path) {
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') out += static_cast<char>(c);
        else out += fmt::format("%{:02X}", c);
    }
    return out;
}

FVTrash::Outcome FVTrash::moveAside(const std::string& path, std::time_t now) {
    Outcome outcome;
    struct stat st {};
    if (FVFileStatus::lstat(path.c_str(), &st) != 0) {
        outcome.problem = std::strerror(errno);
        return outcome;
    }
    int error = 0;
    std::optional<TrashFolder> trash = homeTrashFor(st.st_dev);
    if (!trash) trash = topTrashFor(path, st.st_dev);
    if (trash && moveIntoTrash(*trash, path, now, &outcome.placedAt, &error)) {
        outcome.moved = outcome.inTrash = true;
        return outcome;
    }
    if (moveBeside(path, now, &outcome.placedAt, &error)) {
        outcome.moved = true;
        return outcome;
    }
    outcome.problem = std::strerror(error);
    return outcome;
}

}  // namespace ferrovane
