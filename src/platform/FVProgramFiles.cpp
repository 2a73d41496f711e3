#include "platform/FVProgramFiles.h"

#include "fs/FVFileStatus.h"
#include "fs/FVLinks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

namespace ferrovane::FVProgramFiles {

namespace {

std::string folderOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

bool isExecutable(const std::string& path) {
    struct stat st {};
    return FVFileStatus::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && FVFileStatus::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string running() {
    char buffer[PATH_MAX];
    ssize_t length = FVLinks::readlinkat(AT_FDCWD, "/proc/self/exe", buffer, sizeof buffer);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof buffer) return "";
    return std::string(buffer, static_cast<size_t>(length));
}

std::string commandLineFor(const std::string& runningPath) {
    const std::string folder = folderOf(runningPath);
    if (runningPath.substr(folder.size()) != kWindowName) return runningPath;
    return folder + kCommandLineName;
}

std::string windowFor(const std::string& runningPath, const std::string& searchPath) {
    const std::string folder = folderOf(runningPath);
    if (!folder.empty() && isExecutable(folder + kWindowName)) return folder + kWindowName;
    size_t start = 0;
    while (start <= searchPath.size()) {
        size_t end = searchPath.find(':', start);
        if (end == std::string::npos) end = searchPath.size();
        // An empty entry would be the current folder, which is no place to take a program from.
        if (end > start) {
            std::string candidate = searchPath.substr(start, end - start) + "/" + kWindowName;
            if (isExecutable(candidate)) return candidate;
        }
        start = end + 1;
    }
    return "";
}

}  // namespace ferrovane::FVProgramFiles
