#pragma once
// The extended attributes a copy carries, as one text to compare. Comparing exactly what the
// copy carries keeps an item that cannot carry an attribute from being copied on every run.

#include <string>

namespace ferrovane::FVAttributeSignature {

// Every extended attribute of the item (not following a final link) that a copy carries, as
// "name:<hex value>\n", in the order the file system lists them.
std::string xattrNameAndDataStringForFileAtPath(const std::string& path, bool includeACL = true);
bool xattrIdentialforFileAtPath(const std::string& path, const std::string& otherPath, bool includeACL = true);

}  // namespace ferrovane::FVAttributeSignature
