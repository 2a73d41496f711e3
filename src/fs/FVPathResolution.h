#pragma once
// Turning a path into the one the kernel resolves it to.

#include <string>

namespace ferrovane::FVPathResolution {

// The path with every symbolic link, "." and ".." resolved; nothing when it cannot be.
bool realPath(const char* path, std::string& resolved);
// A relative path made absolute against the working folder; the path itself when that folder
// cannot be read.
std::string absolute(const char* path);

}  // namespace ferrovane::FVPathResolution
