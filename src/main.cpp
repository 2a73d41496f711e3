// Entry point: an absolute destination path as the first argument runs one backup from the
// command line without touching the display; anything else opens the window.

#include "FVVersion.h"
#include "cli/FVCommanlineMode.h"
#include "cli/FVConfigCommand.h"
#include "cli/FVRestoreCommand.h"
#include "cli/FVSearchCommand.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#ifndef FERROVANE_NO_WINDOW
#include "app/FVAppDelegate.h"
#endif

namespace {

void printUsage() {
    std::printf(
        "Usage:\n"
        "  ferrovane                      open the window\n"
        "  ferrovane /path/to/destination [-noUserNotifications | --no-notifications]\n"
        "                                 back up every source configured in the destination\n"
        "  ferrovane search /path/to/destination <text> [--json]\n"
        "                                 list the files whose names contain every word of the\n"
        "                                 text, with all their archived versions\n"
        "  ferrovane versions /path/to/destination <path> [--json]\n"
        "                                 list every version of a backed-up path, newest first\n"
        "  ferrovane restore /path/to/destination <path> [--version <stamp>|current] [--to <folder>]\n"
        "                    [--replace] [--dry-run]\n"
        "  ferrovane restore /path/to/destination --all [--to <root>] [--replace] [--dry-run]\n"
        "                                 copy a version, a folder or every source back; existing\n"
        "                                 different items stop it unless --replace trashes them\n"
        "  ferrovane config /path/to/destination show | add <path> [--mode <mode>] | remove <path>\n"
        "                 | set <option> <value> | schedule daily HH:MM | weekly <weekday> HH:MM | off\n"
        "                 | confirm-empty <path>\n"
        "                                 edit the destination's sources, options and schedule\n"
        "  ferrovane --help | --version\n"
        "\n"
        "The destination keeps its sources and options in .ferrovane.conf in its root.\n"
        "One run at a time per destination: a second one is refused.\n"
        "Exit status: 0 after a backup without errors, 75 when another run is using the\n"
        "destination, 255 otherwise (an option that cannot be used included). versions and\n"
        "restore: 0 done, 1 no version, conflicts or errors (a refused restore writes nothing),\n"
        "2 bad usage (an unknown argument after the destination included: nothing is done).\n");
}

// Anything that is neither a command nor a destination, where no window can open.
int usageError(const char* why) {
    std::fprintf(stderr, "ferrovane: %s.\n\n", why);
    std::fflush(stderr);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    printUsage();
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && argv[1][0] == '/') return ferrovane::FVCommanlineMode::main(argc, argv);
    if (argc >= 2 && std::strcmp(argv[1], "config") == 0) return ferrovane::FVConfigCommand::main(argc, argv);
    if (argc >= 2 && std::strcmp(argv[1], "versions") == 0) return ferrovane::FVRestoreCommand::versionsMain(argc, argv);
    if (argc >= 2 && std::strcmp(argv[1], "restore") == 0) return ferrovane::FVRestoreCommand::restoreMain(argc, argv);
    if (argc >= 2 && std::strcmp(argv[1], "search") == 0) return ferrovane::FVSearchCommand::main(argc, argv);
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        printUsage();
        return 0;
    }
    if (argc >= 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("Ferrovane %s (%s)\n", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER);
        return 0;
    }
#ifdef FERROVANE_NO_WINDOW
    return usageError("this build has no window");
#else
    // Without a display the window cannot open: say how to use the command line instead.
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
        return usageError("no display to open the window on");
    return ferrovane::FVAppDelegate::main(argc, argv);
#endif
}
