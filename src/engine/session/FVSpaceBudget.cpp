#include "engine/session/FVSpaceBudget.h"

#include "engine/run/FVNumber.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane {

namespace {

std::string size(uint64_t bytes) { return FVNumber::formattedDiskSizeString(static_cast<double>(bytes)); }

}  // namespace

FVSpaceBudget::FVSpaceBudget(const FVOptions& options, uint64_t freeBytes, uint64_t volumeBytes)
    : keepsFreeSpace_(options.keepFreeSpace), free_(freeBytes), reserve_(reserveFor(options, volumeBytes)) {}

uint64_t FVSpaceBudget::reserveFor(const FVOptions& options, uint64_t volumeBytes) {
    if (!options.keepFreeSpace) return 0;
    if (options.keepFreeSpaceMB > 0) return static_cast<uint64_t>(options.keepFreeSpaceMB) * kMegabyte;
    return std::min(std::max(kAutomaticFloor, volumeBytes / 50), volumeBytes / 10);
}

std::string FVSpaceBudget::spaceLine(const std::string& destination, uint64_t needed) const {
    return fmt::format("Space on {}: this run writes {}, {} is free and {} is kept free.", destination, size(needed),
                       size(free_), size(reserve_));
}

std::string FVSpaceBudget::shortfallMessage(const std::string& destination, uint64_t needed,
                                            bool purgeForbidden) const {
    std::string text = fmt::format("Not enough room on {}: this run writes {}, {} is free", destination,
                                   size(needed), size(free_));
    text += keepsFreeSpace_ ? fmt::format(" and {} is kept free.", size(reserve_)) : ".";
    std::vector<std::string> remedies{"Free space on the disk"};
    if (keepsFreeSpace_ && needed <= free_) {
        // The largest reserve that lets this run fit; 0 MB would mean the automatic one.
        const uint64_t fitting = (free_ - needed) / kMegabyte;
        remedies.push_back(fitting > 0 ? fmt::format("lower the reserve (ferrovane config {} set keepFreeSpaceMB {})",
                                                     destination, fitting)
                                       : fmt::format("stop keeping space free (ferrovane config {} set keepFreeSpace no)",
                                                     destination));
    }
    if (purgeForbidden)
        remedies.push_back(fmt::format("let runs purge the oldest archived runs (ferrovane config {} set "
                                       "purgeOldestForSpace yes)",
                                       destination));
    remedies.push_back("back up less");
    text += " " + remedies[0];
    for (size_t i = 1; i < remedies.size(); ++i) text += (i + 1 == remedies.size() ? ", or " : ", ") + remedies[i];
    return text + ".";
}

}  // namespace ferrovane
