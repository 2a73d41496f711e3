#include "engine/FVRunSettings.h"

#include "fs/FVText.h"

namespace ferrovane {

std::string FVRunSettings::itemTargetPath(const std::string& sourcePath) const {
    if (sourcePath == "/") return targetPath;
    if (syncMode()) return FVText::appendingPathComponent(targetPath, FVText::lastPathComponent(sourcePath));
    std::string relative = sourcePath;
    while (!relative.empty() && relative.front() == '/') relative.erase(0, 1);
    return FVText::appendingPathComponent(targetPath, relative);
}

}  // namespace ferrovane
