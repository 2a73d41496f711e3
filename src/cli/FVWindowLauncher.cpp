#include "cli/FVWindowLauncher.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "platform/FVProgramFiles.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace ferrovane::FVWindowLauncher {

int exec(char** argv) {
    const char* path = std::getenv("PATH");
    const std::string window = FVProgramFiles::windowFor(FVProgramFiles::running(), path ? path : "");
    if (window.empty()) {
        FVOutput::error("the window is not installed (package {})", FVProgramFiles::kWindowName);
        return FVExitStatus::kUsage;
    }
    argv[0] = const_cast<char*>(window.c_str());
    execv(window.c_str(), argv);
    FVOutput::error("cannot start the window {}: {}", window, std::strerror(errno));
    return FVExitStatus::kUsage;
}

}  // namespace ferrovane::FVWindowLauncher
