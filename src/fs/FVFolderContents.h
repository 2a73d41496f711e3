#pragma once
// Whether a folder holds entries, for the checks before a source or a destination is used.

#include <optional>
#include <string>

namespace ferrovane::FVFolderContents {

// Whether the folder holds at least one entry that is neither hidden nor desktop-database
// housekeeping. A folder that cannot be listed holds none.
bool pathContainsUserFilePaths(const std::string& path);
// Whether the folder holds any entry at all; nothing when it cannot be listed.
std::optional<bool> folderHasEntries(const std::string& path);

}  // namespace ferrovane::FVFolderContents
