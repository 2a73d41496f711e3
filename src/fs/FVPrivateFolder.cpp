#include "fs/FVPrivateFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace ferrovane::FVPrivateFolder {

bool make(const std::string& folder, std::string* error) {
    for (size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
        std::string part = folder.substr(0, slash);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            if (error) *error = "cannot create " + part + ": " + std::strerror(errno);
            return false;
        }
        if (slash == std::string::npos) return true;
    }
}

}  // namespace ferrovane::FVPrivateFolder
