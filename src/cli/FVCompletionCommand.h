#pragma once
// "ferrovane __complete WHAT [DESTINATION]": the words shell completion offers that only the
// destination knows, one a line, so that no completion script reads its files itself. Not in
// the help: it is for the completion scripts, not for people.
//   sources DESTINATION   the configured sources, as config remove takes them
//   versions DESTINATION  the archive stamps, newest first (restore --version)
//   runs DESTINATION      the stamps of the recorded runs, newest first (--at)
//   options               the option names config set takes

#include <string>
#include <vector>

namespace ferrovane::FVCompletionCommand {

// Always exit status 0 and nothing on standard error: a completion that finds nothing offers nothing.
int main(const std::vector<std::string>& arguments);

}  // namespace ferrovane::FVCompletionCommand
