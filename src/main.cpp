// The command line: a command or an absolute destination path runs here without any display
// library; no arguments (or --add PATH...) hand over to the window's executable.

#include "cli/FVCommandLine.h"
#include "cli/FVWindowLauncher.h"

int main(int argc, char** argv) {
    if (auto status = ferrovane::FVCommandLine::run(argc, argv)) return *status;
    return ferrovane::FVWindowLauncher::exec(argv);
}
