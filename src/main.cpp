// Entry point: a command or an absolute destination path runs without touching the display;
// no arguments (or --add PATH...) open the window.

#include "cli/FVCommandLine.h"

#include <cstdlib>

#ifndef FERROVANE_NO_WINDOW
#include "app/FVAppDelegate.h"
#endif

int main(int argc, char** argv) {
    if (auto status = ferrovane::FVCommandLine::run(argc, argv)) return *status;
#ifdef FERROVANE_NO_WINDOW
    return ferrovane::FVCommandLine::usageError("this build has no window");
#else
    // Without a display the window cannot open: say how to use the command line instead.
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        return ferrovane::FVCommandLine::usageError("no display to open the window on");
    return ferrovane::FVAppDelegate::main(argc, argv);
#endif
}
