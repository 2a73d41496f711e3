#include "support/TempDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace ferrovane::test {

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/ferrovane-test-XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
    path_ = name.data();
}

TempDir::~TempDir() {
    // Inode flags set by a test would block the removal.
    std::string cmd = "chattr -R -i -a '" + path_ + "' >/dev/null 2>&1; rm -rf '" + path_ + "'";
    int ignored = std::system(cmd.c_str());
    (void)ignored;
}

void writeFile(const std::string& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

void makeDirs(const std::string& path) { std::filesystem::create_directories(path); }

bool setModificationTime(const std::string& path, long seconds, long nanoseconds) {
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string makeDeepFile(const std::string& base, std::string_view content) {
    const std::string name(60, 'd');
    std::string path = base;
    int folder = open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < 80 && folder >= 0; ++level) {
        mkdirat(folder, name.c_str(), 0755);
        const int child = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        folder = child;
        path += "/" + name;
    }
    const int file = folder < 0 ? -1 : openat(folder, "deep.txt", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = file >= 0 && write(file, content.data(), content.size()) == ssize_t(content.size());
    if (file >= 0) close(file);
    if (folder >= 0) close(folder);
    if (!written) throw std::runtime_error("cannot make a file below " + base);
    return path + "/deep.txt";
}

}  // namespace ferrovane::test
