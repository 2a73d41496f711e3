#include "cli/FVCommanlineMode.h"

#include <cstdio>

namespace ferrovane {

int FVCommanlineMode::runBackup() {
    std::fprintf(stderr, "ferrovane: the configuration of %s was read (%zu sources), but this build "
                         "cannot run backups yet.\n",
                 destinationPath_.c_str(), configuration_.sources.size());
    return 255;
}

}  // namespace ferrovane
