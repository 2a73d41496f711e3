#pragma once
// Which items of a destination a name search considers. Hidden items and the folders named
// Library, System and private are passed over with everything inside them; an application bundle
// (a folder named *.app) is one item, its contents are not searched. The walk of the tree and the
// answer from the record of runs apply the same rules, so that both find the same items.

#include <string_view>

namespace ferrovane::FVSearchCandidates {

enum class Kind { Folder, FileOrLink, Other };

// Whether an item of this name and kind is a candidate, given that its folder is searched.
bool isCandidate(std::string_view name, Kind kind);
// Whether the items inside a folder of this name are searched.
bool entersFolder(std::string_view name);
// Whether every folder above the last component of a path relative to the mirror ("/a/b/name":
// a and b) is searched.
bool entersEveryFolderAbove(std::string_view path);

}  // namespace ferrovane::FVSearchCandidates
