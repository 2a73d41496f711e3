#include "engine/restore/FVRecordedMetadata.h"

#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileModes.h"
#include "fs/FVOwnership.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ferrovane::FVRecordedMetadata {

namespace {

int changeOwner(FVItemHandle item, uid_t owner, gid_t group) {
    return item.pathOnly ? FVOwnership::fchownat(item.fd, "", owner, group, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW)
                         : FVOwnership::fchown(item.fd, owner, group);
}

void note(std::string* problem, const std::string& what, int error) {
    if (problem->empty()) *problem = fmt::format("{} ({})", what, std::strerror(error));
}

}  // namespace

bool apply(const FVManifestEntry& entry, FVItemHandle item, const FVDestinationProfile& target, std::string* problem) {
    problem->clear();
    const bool link = entry.type == FVManifestEntryType::Link;
    if (target.keepsOwners) {
        const bool superuser = geteuid() == 0;
        // An ordinary user may give only a group of theirs to a file of theirs: EPERM is then no error.
        if (changeOwner(item, superuser ? entry.owner : static_cast<uid_t>(-1), entry.group) != 0 &&
            (superuser || errno != EPERM))
            note(problem, "could not set its owner", errno);
    }
    if (target.extendedAttributes && !link) {
        const FVExtendedAttributes attributes(item.fd, item.pathOnly);
        std::vector<char> value;
        for (const auto& [name, bytes] : entry.attributes) {
            if (FVExtendedAttributes::isSkipped(name)) continue;
            value.assign(bytes.begin(), bytes.end());
            if (attributes.writeValue(name.c_str(), value, value.size()) != 0)
                note(problem, "could not set its attribute " + name, errno);
        }
    }
    // After the owner: a change of owner clears the set-id bits.
    if (target.keepsModes && !link && FVFileModes::fchmod(item.fd, entry.mode & 07777) != 0)
        note(problem, "could not set its mode", errno);
    struct stat times {};
    times.st_mtim = {static_cast<time_t>(entry.modificationTimeNs / 1000000000),
                     static_cast<long>(entry.modificationTimeNs % 1000000000)};
    if (times.st_mtim.tv_nsec < 0) {
        times.st_mtim.tv_sec -= 1;
        times.st_mtim.tv_nsec += 1000000000;
    }
    times.st_atim = times.st_mtim;
    int error = 0;
    if ((!link || target.linkTimes) && !FVItemMetadata::cloneTimes(times, item, &error))
        note(problem, "could not set its modification time", error);
    return problem->empty();
}

}  // namespace ferrovane::FVRecordedMetadata
