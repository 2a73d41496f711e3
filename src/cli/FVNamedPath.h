#pragma once
// A path as the user typed it on the command line, made absolute (against the working folder)
// and, where two spellings must compare equal, with its deepest existing ancestor resolved.

#include <string>

namespace ferrovane::FVNamedPath {

std::string absolute(const std::string& path);
// The path with its deepest existing ancestor's links resolved.
std::string resolved(const std::string& path);

}  // namespace ferrovane::FVNamedPath
