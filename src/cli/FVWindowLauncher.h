#pragma once
// The command line's way into the window: the window is a separate executable (its own
// package), started in place of this process with the same arguments.

namespace ferrovane::FVWindowLauncher {

// Replaces this process with ferrovane-gui (beside this executable, else on PATH). Returns only
// when there is none or it cannot be started: the usage status (2), after saying why.
int exec(char** argv);

}  // namespace ferrovane::FVWindowLauncher
