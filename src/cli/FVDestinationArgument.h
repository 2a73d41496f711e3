#pragma once
// The destination as every command takes it: an absolute path. A backup run has always been
// started that way (scheduled jobs and scripts name the destination in full), so every command
// refuses a relative one alike instead of resolving it against whatever folder the shell is in.

#include <optional>
#include <string>

namespace ferrovane::FVDestinationArgument {

// Nothing when the argument is an absolute path; otherwise, after one error line on standard
// error that names the absolute path the user may have meant, the exit status to return.
std::optional<int> refusal(const std::string& argument);

}  // namespace ferrovane::FVDestinationArgument
