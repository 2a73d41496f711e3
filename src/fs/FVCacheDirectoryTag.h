#pragma once
// A cache folder's tag (https://bford.info/cachedir/): a regular file named CACHEDIR.TAG whose
// first bytes are the tag's signature. Programs put it into folders they can fill again, so that
// backups leave the contents out.

#include <string_view>

namespace ferrovane::FVCacheDirectoryTag {

inline constexpr const char* kName = "CACHEDIR.TAG";
inline constexpr std::string_view kSignature = "Signature: 8a477f597d28d172789f06886806bc55";

// Whether the folder name inside dirFd (or a path, with AT_FDCWD) holds a valid tag. A tag that
// cannot be read counts as none: the folder is then backed up whole.
bool isTagged(int dirFd, const char* name);

}  // namespace ferrovane::FVCacheDirectoryTag
