#include "engine/run/FVLogRotation.h"

#include "fs/FVFileLocks.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVRenames.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ferrovane::FVLogRotation {

std::string rotateIfLarger(const std::string& path, uint64_t capBytes, int generations) {
    struct stat st {};
    if (FVFileStatus::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) <= capBytes)
        return {};
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    int folderFd = FVOpenFiles::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd < 0) return fmt::format("cannot open {} to rotate the log: {}", folder, std::strerror(errno));
    int locked;
    do locked = FVFileLocks::flock(folderFd, LOCK_EX);
    while (locked != 0 && errno == EINTR);
    std::string problem;
    // Another run may have rotated it while this one waited.
    if (locked != 0) {
        problem = fmt::format("cannot lock {} to rotate the log: {}", folder, std::strerror(errno));
    } else if (FVFileStatus::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) > capBytes) {
        for (int generation = generations - 1; generation >= 1 && problem.empty(); --generation) {
            const std::string from = fmt::format("{}.{}", path, generation);
            if (FVRenames::rename(from.c_str(), fmt::format("{}.{}", path, generation + 1).c_str()) != 0 && errno != ENOENT)
                problem = fmt::format("cannot rename {}: {}", from, std::strerror(errno));
        }
        if (problem.empty() && FVRenames::rename(path.c_str(), (path + ".1").c_str()) != 0)
            problem = fmt::format("cannot rename {}: {}", path, std::strerror(errno));
    }
    FVOpenFiles::close(folderFd);  // releases the lock
    return problem;
}

}  // namespace ferrovane::FVLogRotation
