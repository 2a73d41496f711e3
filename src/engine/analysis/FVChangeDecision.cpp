#include "engine/analysis/FVChangeDecision.h"

#include <unistd.h>

#include <algorithm>

namespace ferrovane {

FVChangeDecision::Tolerance FVChangeDecision::Tolerance::of(const FVDestinationProfile& profile) {
    static const bool superuser = geteuid() == 0;
    const bool owners = profile.keepsOwners && superuser;
    return {std::max<int64_t>(profile.timeGranularityNs, 1), profile.keepsModes, owners,
            static_cast<mode_t>(owners ? 07777 : 01777), profile.linkTimes};
}

FVChangeDecision::Reason FVChangeDecision::decide(const Side& source, const Side& destination,
                                                  const std::function<bool()>& xattrsIdentical,
                                                  const Tolerance& tolerance) {
    if (destination.type == FVFileType::None) return Reason::DestinationMissing;
    if (source.type != destination.type) return Reason::TypeMismatch;
    const bool ownersDiffer =
        tolerance.comparesOwners && (source.owner != destination.owner || source.group != destination.group);
    // A link's size is the length of its target: a link pointed elsewhere is made anew, with a
    // new date.
    const bool link = source.type == FVFileType::SymbolicLink;
    if ((source.type == FVFileType::Regular || link) && source.size != destination.size) return Reason::SizeMismatch;
    const int64_t difference = source.modificationTimeNs - destination.modificationTimeNs;
    if ((!link || tolerance.comparesLinkTimes) &&
        (difference >= tolerance.timeGranularityNs || difference <= -tolerance.timeGranularityNs))
        return Reason::DateMismatch;
    // A link has no mode of its own, and no attributes an ordinary user can set.
    if (link) return ownersDiffer ? Reason::ModeOrOwnerMismatch : Reason::Unchanged;
    if (xattrsIdentical && !xattrsIdentical()) return Reason::XattrMismatch;
    const bool modesDiffer = tolerance.comparesModes && ((source.mode ^ destination.mode) & tolerance.modeBits) != 0;
    if (ownersDiffer || modesDiffer) return Reason::ModeOrOwnerMismatch;
    return Reason::Unchanged;
}

FVChangeDecision::Side FVChangeDecision::sideOf(FVFileSystemItem& item) {
    if (!item.fileExists()) return {};
    const struct stat& st = item.statBuffer();
    return {item.fileType(), item.fileSize(), item.fileModificationTimeNs(), static_cast<mode_t>(st.st_mode & 07777),
            st.st_uid, st.st_gid};
}

}  // namespace ferrovane
