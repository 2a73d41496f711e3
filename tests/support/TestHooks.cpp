#include "support/TestHooks.h"

#include "support/TempDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

namespace ferrovane::test {

TestHooks::TestHooks(std::string folder) : folder_(std::move(folder)) { std::filesystem::create_directories(folder_); }

void TestHooks::arm(const std::string& moment, const std::string& pattern, bool hold) const {
    const std::string trigger = folder_ + "/" + moment;
    for (const char* suffix : {"", ".fired", ".reached", ".release"}) std::filesystem::remove(trigger + suffix);
    if (hold) mkfifo((trigger + ".release").c_str(), 0600);
    writeFile(trigger, pattern);
}

bool TestHooks::waitUntilReached(const std::string& moment, double seconds) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!std::filesystem::exists(folder_ + "/" + moment + ".reached")) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

void TestHooks::release(const std::string& moment) const {
    // The held process opens its end of the FIFO right after it reached the moment; until then
    // there is no reader.
    const std::string fifo = folder_ + "/" + moment + ".release";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            close(fd);
            return;
        }
        if (errno != ENXIO || std::chrono::steady_clock::now() > deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace ferrovane::test
