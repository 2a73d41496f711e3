#pragma once
// The process's own diagnostic channel, for internal problems that are not part of a run's
// account: syslog(3) only (the journal under systemd). What the user must see on the terminal
// the front ends print themselves, in their own form.

#include <string_view>

namespace ferrovane::FVSystemLog {

// Writes "ERROR: <className>: <message>" (the conventional form of internal errors).
void error(std::string_view className, std::string_view message);
// Writes the text as it is, as a warning.
void warning(std::string_view text);

}  // namespace ferrovane::FVSystemLog
