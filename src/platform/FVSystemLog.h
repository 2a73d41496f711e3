#pragma once
// The process's own diagnostic channel, for internal problems that are not part of a run's
// account: syslog(3) and standard error.

#include <string_view>

namespace ferrovane::FVSystemLog {

// Writes "ERROR: <className>: <message>" (the conventional form of internal errors).
void error(std::string_view className, std::string_view message);
// Writes the text as it is.
void write(std::string_view text);
// Only to syslog, as a warning: for the user's attention where standard output already tells it.
void warning(std::string_view text);

}  // namespace ferrovane::FVSystemLog
