#include "fs/FVTestHook.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVTestHook {

namespace {

const std::string& hookFolder() {
    static const std::string folder = [] {
        const char* value = std::getenv("FERROVANE_TEST_HOOKS");
        return std::string(value ? value : "");
    }();
    return folder;
}

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return text;
        }
    }
}

void writeFileAtomically(const std::string& path, std::string_view text) {
    const std::string temporary = path + ".tmp";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const ssize_t written = write(fd, text.data(), text.size());
    close(fd);
    if (written == static_cast<ssize_t>(text.size())) std::rename(temporary.c_str(), path.c_str());
}

}  // namespace

void reach(std::string_view moment, std::string_view path) {
    const std::string& folder = hookFolder();
    if (folder.empty()) return;
    const std::string trigger = folder + "/" + std::string(moment);
    const int fd = open(trigger.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    std::string pattern = readAll(fd);
    close(fd);
    while (!pattern.empty() && pattern.back() == '\n') pattern.pop_back();
    if (path.find(pattern) == std::string_view::npos) return;
    // Several threads may pass the same moment at once: the one whose rename wins fires it.
    if (std::rename(trigger.c_str(), (trigger + ".fired").c_str()) != 0) return;
    writeFileAtomically(trigger + ".reached", path);
    const int release = open((trigger + ".release").c_str(), O_RDONLY | O_CLOEXEC);
    if (release < 0) return;
    readAll(release);
    close(release);
}

}  // namespace ferrovane::FVTestHook
