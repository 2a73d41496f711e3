#pragma once
// A folder of the user's own state (job status, hook approvals) and its missing parents, made
// readable by the user alone: what they hold names the user's destinations and commands.

#include <string>

namespace ferrovane::FVPrivateFolder {

// Creates folder and its missing parents with mode 0700; true when it exists afterwards.
bool make(const std::string& folder, std::string* error);

}  // namespace ferrovane::FVPrivateFolder
