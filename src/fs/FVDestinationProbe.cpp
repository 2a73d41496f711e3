#include "fs/FVDestinationProbe.h"

#include "fs/FVConfinedDirectory.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVMountTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string_view>

namespace ferrovane {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// Odd seconds and odd nanoseconds: every coarser granularity reads back another value.
constexpr timespec kProbeTime{1'000'000'001, 987'654'321};
constexpr int64_t kOneSecond = 1'000'000'000;
constexpr int64_t kTwoSeconds = 2 * kOneSecond;
// What FAT and exFAT refuse besides control characters; NTFS refuses the same to Windows only.
// Types whose every request is a round trip to a server; the type name is all a run can go by,
// since a loopback server answers as fast as a slow disk.
bool servedOverNetwork(const std::string& type) {
    static constexpr std::string_view kNetworkTypes[] = {"nfs",   "nfs4",       "cifs",       "smb3",     "9p",
                                                         "ceph",  "glusterfs",  "fuse.sshfs", "fuse.davfs", "davfs",
                                                         "fuse.rclone", "fuse.glusterfs", "afs", "fuse.s3fs"};
    return std::find(std::begin(kNetworkTypes), std::end(kNetworkTypes), type) != std::end(kNetworkTypes);
}

constexpr const char* kFatRefusedPunctuation = "\\:*?\"<>|";

int64_t nanoseconds(const timespec& t) { return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec; }

// The coarsest step that explains the time read back, whether the file system cut it or rounded
// it up; 2 s (the coarsest there is) when nothing does, so that times still compare.
int64_t granularityOf(const timespec& set, const timespec& got) {
    const int64_t wanted = nanoseconds(set), kept = nanoseconds(got);
    for (int64_t step : {int64_t{1}, int64_t{10}, int64_t{100}, int64_t{1000}, int64_t{1'000'000},
                         int64_t{10'000'000}, int64_t{1'000'000'000}, kTwoSeconds}) {
        const int64_t down = wanted - wanted % step;
        if (kept == down || kept == down + step) return step;
    }
    return kTwoSeconds;
}

std::string controlBytes(bool withDelete) {
    std::string bytes;
    for (char c = 1; c < 0x20; ++c) bytes += c;
    if (withDelete) bytes += '\x7f';
    return bytes;
}

// Whether the file system refuses to make a file of that name (as opposed to any other failure).
bool refusesName(int dirFd, const char* name) {
    FVFd fd(openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    // exfat-fuse answers ENOENT, in a folder that exists.
    return !fd.valid() &&
           (errno == EINVAL || errno == EILSEQ || errno == EPERM || errno == ENAMETOOLONG || errno == ENOENT);
}

std::string swappedCase(const std::string& name) {
    std::string swapped = name;
    for (char& c : swapped) {
        const auto u = static_cast<unsigned char>(c);
        c = static_cast<char>(std::islower(u) ? std::toupper(u) : std::tolower(u));
    }
    return swapped;
}

// Whether times, modes, owners and extended attributes stay on the file fd; st: its status after.
void probeFileAttributes(int fd, FVDestinationProfile& profile, struct stat& st) {
    const timespec times[2] = {kProbeTime, kProbeTime};
    const bool timesSet = futimens(fd, times) == 0;
    profile.keepsModes = fchmod(fd, 0600) == 0;
    static const uid_t euid = geteuid();
    // Another owner: only the superuser may give one. For anyone else, whether modes stick
    // is all that matters.
    const uid_t otherOwner = euid == 0 ? 4242 : euid;
    profile.keepsOwners = euid != 0 || fchown(fd, otherOwner, static_cast<gid_t>(-1)) == 0;
    profile.extendedAttributes = fsetxattr(fd, "user.ferrovane.probe", "1", 1, 0) == 0;
    if (fstat(fd, &st) == 0) {
        profile.timeGranularityNs = timesSet ? granularityOf(kProbeTime, st.st_mtim) : kTwoSeconds;
        profile.keepsModes = profile.keepsModes && (st.st_mode & 07777) == 0600;
        profile.keepsOwners = profile.keepsOwners && profile.keepsModes && st.st_uid == otherOwner;
    }
}

// How long a name may be and which bytes the file system refuses in one, tried in folderFd.
void probeNames(int folderFd, FVDestinationProfile& profile) {
    struct statvfs vfs {};
    if (fstatvfs(folderFd, &vfs) == 0 && vfs.f_namemax > 0) profile.maxNameLength = vfs.f_namemax;
    // A colon stands for the punctuation FAT and exFAT refuse together.
    if (refusesName(folderFd, "a:b")) profile.refusedNameBytes = kFatRefusedPunctuation;
    if (refusesName(folderFd, "a\x01")) profile.refusedNameBytes += controlBytes(false);
    if (refusesName(folderFd, "a\x7f")) profile.refusedNameBytes += '\x7f';
    profile.utf8NamesOnly = refusesName(folderFd, "a\xff");
}

}  // namespace

FVDestinationProfile FVDestinationProbe::defaultsForType(const std::string& type) {
    FVDestinationProfile profile;
    profile.fileSystemType = type;
    profile.remote = servedOverNetwork(type);
    const bool fat = type == "vfat" || type == "msdos" || type == "fuse.fusefat";
    const bool exfat = type == "exfat" || type == "fuse.exfat";
    const bool ntfs = type == "ntfs" || type == "ntfs3" || type == "fuse.ntfs-3g";
    // Both exfat-fuse and ntfs-3g mount as "fuseblk": assume only what both share, and leave case
    // and links to the look-up or the probe.
    const bool fuseBlock = type == "fuseblk";
    if (type.starts_with("fuse")) profile.renameNoReplace = false;
    if (type == "fuse.fusefat") profile.renameKeepsTimes = false;
    if (type == "fuse.sshfs") profile.hardLinks = profile.extendedAttributes = false;
    if (fat || exfat || ntfs || fuseBlock) {
        profile.keepsOwners = profile.keepsModes = false;
        profile.utf8NamesOnly = true;
    }
    if (fat || exfat) {
        profile.caseInsensitive = true;
        profile.symbolicLinks = profile.linkTimes = profile.extendedAttributes = profile.hardLinks = false;
        profile.refusedNameBytes = kFatRefusedPunctuation + controlBytes(fat);
    }
    if (ntfs) profile.timeGranularityNs = 100;
    if (exfat || fuseBlock) profile.timeGranularityNs = kOneSecond;
    if (fat) profile.timeGranularityNs = kTwoSeconds;
    return profile;
}

FVDestinationProfile FVDestinationProbe::probeWithoutWriting(const std::string& knownName) {
    FVDestinationProfile profile = defaultsForType(FVMountTable::fileSystemTypeAtPath(rootPath_));
    FVFd root(FVLongPath::open(rootPath_, O_RDONLY | O_DIRECTORY));
    struct stat known {}, other {};
    const std::string swapped = swappedCase(knownName);
    if (!root.valid() || swapped == knownName || fstatat(root.get(), knownName.c_str(), &known, AT_SYMLINK_NOFOLLOW) != 0)
        return profile;
    if (fstatat(root.get(), swapped.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0)
        profile.caseInsensitive = other.st_ino == known.st_ino && other.st_dev == known.st_dev;
    else if (errno == ENOENT)
        profile.caseInsensitive = false;
    return profile;
}

FVDestinationProfile FVDestinationProbe::probe() {
    problem_.clear();
    problemError_ = 0;
    const std::string type = FVMountTable::fileSystemTypeAtPath(rootPath_);
    FVFd root(FVLongPath::open(rootPath_, O_RDONLY | O_DIRECTORY));
    struct stat rootSt {};
    if (!root.valid() || fstat(root.get(), &rootSt) != 0) {
        problemError_ = errno;
        problem_ = fmt::format("cannot open {}: {}", rootPath_, std::strerror(errno));
        return defaultsForType(type);
    }
    const char* folderName = temporaryName_.c_str();
    FVConfinedDirectory::removeRecursivelyAt(root.get(), temporaryName_);
    if (mkdirat(root.get(), folderName, 0700) != 0) {
        problemError_ = errno;
        problem_ = fmt::format("cannot make a folder in {}: {}", rootPath_, std::strerror(errno));
        return defaultsForType(type);
    }
    FVDestinationProfile profile;
    profile.fileSystemType = type;
    profile.remote = servedOverNetwork(type);
    FVFd folder(openat(root.get(), folderName, kFolderFlags));
    FVFd file(folder.valid() ? openat(folder.get(), "Probe", O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644)
                             : -1);
    if (!file.valid()) {
        problemError_ = errno;
        problem_ = fmt::format("cannot make a file in {}: {}", rootPath_, std::strerror(errno));
        profile = defaultsForType(type);
    } else {
        struct stat st {};
        probeFileAttributes(file.get(), profile, st);
        file.reset();
        struct stat other {};
        profile.caseInsensitive = fstatat(folder.get(), "pROBE", &other, AT_SYMLINK_NOFOLLOW) == 0;
        // Drivers without the flag answer EINVAL (ntfs-3g, exfat-fuse), old kernels ENOSYS.
        int renamed = renameat2(folder.get(), "Probe", folder.get(), "Renamed", RENAME_NOREPLACE);
        profile.renameNoReplace = renamed == 0;
        if (renamed != 0 && (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP))
            renamed = renameat(folder.get(), "Probe", folder.get(), "Renamed");
        if (renamed != 0) {
            problemError_ = errno;
            problem_ = fmt::format("a rename in {} failed: {}", rootPath_, std::strerror(errno));
        }
        struct stat after {};
        if (renamed == 0 && fstatat(folder.get(), "Renamed", &after, AT_SYMLINK_NOFOLLOW) == 0)
            profile.renameKeepsTimes = nanoseconds(after.st_mtim) == nanoseconds(st.st_mtim);
        const char* probeName = renamed == 0 ? "Renamed" : "Probe";
        struct stat linked {}, first {};
        profile.hardLinks = linkat(folder.get(), probeName, folder.get(), "Hard", 0) == 0 &&
                            fstatat(folder.get(), "Hard", &linked, AT_SYMLINK_NOFOLLOW) == 0 &&
                            fstatat(folder.get(), probeName, &first, AT_SYMLINK_NOFOLLOW) == 0 &&
                            linked.st_ino == first.st_ino && linked.st_dev == first.st_dev && first.st_nlink == 2;
        profile.symbolicLinks = symlinkat("Renamed", folder.get(), "Link") == 0;
        const timespec linkTimes[2] = {kProbeTime, kProbeTime};
        struct stat link {};
        profile.linkTimes = profile.symbolicLinks &&
                            utimensat(folder.get(), "Link", linkTimes, AT_SYMLINK_NOFOLLOW) == 0 &&
                            fstatat(folder.get(), "Link", &link, AT_SYMLINK_NOFOLLOW) == 0 &&
                            granularityOf(kProbeTime, link.st_mtim) <= profile.timeGranularityNs;
        probeNames(folder.get(), profile);
    }
    folder.reset();
    if (int error = FVConfinedDirectory::removeRecursivelyAt(root.get(), temporaryName_); error != 0 && problem_.empty()) {
        problemError_ = error;
        problem_ = fmt::format("cannot remove {}/{}: {}", rootPath_, temporaryName_, std::strerror(error));
    }
    const timespec rootTimes[2] = {rootSt.st_atim, rootSt.st_mtim};
    if (futimens(root.get(), rootTimes) != 0 && problem_.empty()) {
        problemError_ = errno;
        problem_ = fmt::format("cannot give {} its dates back: {}", rootPath_, std::strerror(errno));
    }
    return profile;
}

std::string FVDestinationProbe::describe(const FVDestinationProfile& p) {
    std::string text = p.fileSystemType.empty() ? "unknown type" : p.fileSystemType;
    if (p.remote) text += ", over the network";
    if (p.timeGranularityNs == 1) text += ", exact times";
    else if (p.timeGranularityNs < 1'000'000) text += fmt::format(", times to {} ns", p.timeGranularityNs);
    else if (p.timeGranularityNs < 1'000'000'000) text += fmt::format(", times to {} ms", p.timeGranularityNs / 1'000'000);
    else text += fmt::format(", times to {} s", p.timeGranularityNs / 1'000'000'000);
    text += p.caseInsensitive ? ", case-insensitive" : ", case-sensitive";
    if (!p.renameNoReplace) text += ", no rename that refuses to replace";
    if (!p.renameKeepsTimes) text += ", renames reset times";
    if (!p.keepsOwners) text += ", no owners";
    if (!p.keepsModes) text += ", no modes";
    if (!p.symbolicLinks) text += ", no symbolic links";
    else if (!p.linkTimes) text += ", link times not kept";
    if (!p.extendedAttributes) text += ", no extended attributes";
    if (!p.hardLinks) text += ", no hard links";
    text += fmt::format(", names up to {} bytes", p.maxNameLength);
    if (p.utf8NamesOnly) text += ", UTF-8 names only";
    if (!p.refusedNameBytes.empty()) {
        std::string shown;
        bool controls = false;
        for (char c : p.refusedNameBytes) {
            if (static_cast<unsigned char>(c) < 0x20 || c == '\x7f') controls = true;
            else shown += c;
        }
        text += fmt::format(", refuses {}{}{} in names", shown, !shown.empty() && controls ? " and " : "",
                            controls ? "control characters" : "");
    }
    return text;
}

}  // namespace ferrovane
