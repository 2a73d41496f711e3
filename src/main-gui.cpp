// The window's executable. It accepts the command line's every form too, so that the arguments
// "ferrovane" hands over (or a user types) mean the same here; no arguments or --add open the window.

#include "app/FVAppDelegate.h"
#include "cli/FVCommandLine.h"

#include <cstdlib>

int main(int argc, char** argv) {
    if (auto status = ferrovane::FVCommandLine::run(argc, argv)) return *status;
    // Without a display the window cannot open: say how to use the command line instead.
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        return ferrovane::FVCommandLine::usageError("no display to open the window on");
    return ferrovane::FVAppDelegate::main(argc, argv);
}
