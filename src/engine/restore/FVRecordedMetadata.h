#pragma once
// Puts back on a restored item the metadata its run recorded from the source: owner and group,
// extended attributes and access control lists, mode, and modification time. The record holds
// them also where the destination could not (exFAT, NTFS, FAT), so a restore does not lose them.

#include "fs/FVDestinationProfile.h"
#include "fs/FVItemMetadata.h"
#include "manifest/FVManifestEntry.h"

#include <string>

namespace ferrovane::FVRecordedMetadata {

// item is the restored item, open (a link as O_PATH). What the target file system cannot hold
// is not tried; an owner the process may not give is not tried either (an ordinary user keeps
// the files, and gives them the recorded group where it is one of theirs). Every step is tried;
// false, with what failed, when any did.
bool apply(const FVManifestEntry& entry, FVItemHandle item, const FVDestinationProfile& target, std::string* problem);

}  // namespace ferrovane::FVRecordedMetadata
