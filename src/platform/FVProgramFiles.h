#pragma once
// The program's two executables, installed side by side: "ferrovane" (the command line and the
// scheduled runs, no display libraries) and "ferrovane-gui" (the window).

#include <string>

namespace ferrovane::FVProgramFiles {

inline constexpr const char* kCommandLineName = "ferrovane";
inline constexpr const char* kWindowName = "ferrovane-gui";

// The running executable as /proc/self/exe names it; "" when it cannot be read.
std::string running();

// The executable scheduled jobs start: the command line beside `runningPath` when that is the
// window (a job must not need the window's package), otherwise `runningPath` itself.
std::string commandLineFor(const std::string& runningPath);

// The window's executable: beside `runningPath` first, then in the folders of `searchPath` (as
// PATH lists them); "" when neither holds an executable one.
std::string windowFor(const std::string& runningPath, const std::string& searchPath);

}  // namespace ferrovane::FVProgramFiles
