#include "fs/FVItemMetadata.h"

#include "fs/FVExtendedAttributes.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

namespace ferrovane::FVItemMetadata {

namespace {

struct ProcPath {
    explicit ProcPath(int fd) { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
    char text[32];
};

bool containsName(const std::vector<char>& names, size_t size, std::string_view name) {
    for (size_t pos = 0; pos < size;) {
        std::string_view candidate(names.data() + pos);
        if (candidate == name) return true;
        pos += candidate.size() + 1;
    }
    return false;
}

void note(int* error, int value) {
    if (error && !*error) *error = value;
}

}  // namespace

bool cloneStatusAndAttributes(FVItemHandle source, const struct stat& st, FVItemHandle destination, bool cloneACL,
                              int* error, const FVStartingState* start, const FVDestinationProfile* keeps) {
    // Buffers live as long as the thread: no allocation per item once they have grown.
    thread_local std::vector<char> sourceNames, destinationNames, value;
    if (error) *error = 0;
    bool ok = true;
    bool isLink = S_ISLNK(st.st_mode);
    if (isLink) cloneACL = false;

    // Owner first: a change of owner clears the set-id bits and file capabilities set before it.
    static const uid_t euid = geteuid();
    const bool ownerKept = start && (euid != 0 || start->owner == st.st_uid) && start->group == st.st_gid;
    const bool linkUntouchable = isLink && keeps && !keeps->linkTimes;
    if ((euid == 0 || st.st_uid == euid) && !ownerKept && (!keeps || keeps->keepsOwners) && !linkUntouchable) {
        uid_t owner = euid == 0 ? st.st_uid : static_cast<uid_t>(-1);
        int result = destination.pathOnly ? fchownat(destination.fd, "", owner, st.st_gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW)
                                          : fchown(destination.fd, owner, st.st_gid);
        // An ordinary user outside the source's group may not give the item that group.
        if (result != 0 && (euid == 0 || errno != EPERM)) ok = false, note(error, errno);
    }

    const FVExtendedAttributes from(source.fd, source.pathOnly), to(destination.fd, destination.pathOnly);
    const bool attributes = !keeps || keeps->extendedAttributes;
    ssize_t sourceSize = attributes ? from.listNames(sourceNames) : 0;
    if (sourceSize < 0 && errno != ENOTSUP) ok = false, note(error, errno);
    for (ssize_t pos = 0; pos < sourceSize;) {
        const char* name = sourceNames.data() + pos;
        pos += static_cast<ssize_t>(strlen(name)) + 1;
        if (!FVExtendedAttributes::isCarried(name, cloneACL)) continue;
        ssize_t size = from.readValue(name, value);
        if (size < 0) {
            if (errno != ENODATA) ok = false, note(error, errno);
            continue;
        }
        if (to.writeValue(name, value, static_cast<size_t>(size)) != 0) ok = false, note(error, errno);
    }
    ssize_t destinationSize = !attributes || (start && !start->hasAttributes) ? 0 : to.listNames(destinationNames);
    for (ssize_t pos = 0; pos < destinationSize;) {
        const char* name = destinationNames.data() + pos;
        pos += static_cast<ssize_t>(strlen(name)) + 1;
        if (!FVExtendedAttributes::isCarried(name, cloneACL)) continue;
        if (sourceSize > 0 && containsName(sourceNames, static_cast<size_t>(sourceSize), name)) continue;
        if (to.removeValue(name) != 0 && errno != ENODATA) ok = false, note(error, errno);
    }

    // The mode last: it also sets the ACL mask to the source's group bits.
    if (!isLink && (!keeps || keeps->keepsModes)) {
        mode_t mode = st.st_mode & 07777;
        int result = destination.pathOnly ? chmod(ProcPath(destination.fd).text, mode) : fchmod(destination.fd, mode);
        if (result != 0) ok = false, note(error, errno);
    }
    return ok;
}

bool cloneTimes(const struct stat& st, FVItemHandle destination, int* error) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    int result = destination.pathOnly ? utimensat(destination.fd, "", times, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW)
                                      : futimens(destination.fd, times);
    if (result == 0) return true;
    if (error) *error = errno;
    return false;
}

}  // namespace ferrovane::FVItemMetadata
