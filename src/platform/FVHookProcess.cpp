#include "platform/FVHookProcess.h"

#include "fs/FVFileData.h"
#include "fs/FVOpenFiles.h"
#include "platform/FVCancellingSignals.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace ferrovane {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kSlice{100};
constexpr size_t kLongestLine = 4096;

// Cuts what the command writes into lines; an overlong line is handed over in pieces.
class LineSplitter {
public:
    explicit LineSplitter(const FVHookProcess::LineHandler& output) : output_(output) {}
    void add(const char* data, size_t size) {
        pending_.append(data, size);
        size_t start = 0;
        for (size_t end; (end = pending_.find('\n', start)) != std::string::npos; start = end + 1)
            emit(std::string_view(pending_).substr(start, end - start));
        pending_.erase(0, start);
        while (pending_.size() >= kLongestLine) {
            emit(std::string_view(pending_).substr(0, kLongestLine));
            pending_.erase(0, kLongestLine);
        }
    }
    void finish() {
        if (!pending_.empty()) emit(pending_);
        pending_.clear();
    }

private:
    void emit(std::string_view line) {
        if (output_) output_(line);
    }
    const FVHookProcess::LineHandler& output_;
    std::string pending_;
};

std::vector<std::string> environmentWith(const FVHookProcess::Environment& added) {
    std::vector<std::string> entries;
    for (char** entry = environ; entry && *entry; ++entry) {
        std::string_view text = *entry;
        std::string_view name = text.substr(0, text.find('='));
        if (std::none_of(added.begin(), added.end(), [&](const auto& pair) { return pair.first == name; }))
            entries.emplace_back(text);
    }
    for (const auto& [name, value] : added) entries.push_back(name + "=" + value);
    return entries;
}

// Whether the child has ended, without reaping it: while it is a zombie its process id, and so
// its group's, cannot be reused, and the group can still be signalled safely.
bool hasEnded(pid_t pid) {
    siginfo_t info {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
}

// Starts the command under /bin/sh in a process group of its own, its output and errors into
// outputFd. Returns 0, or the error number of a start that failed.
int spawnShell(const std::string& command, const FVHookProcess::Environment& environment, int outputFd, pid_t& pid) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outputFd, STDERR_FILENO);
    // Not the destination: a hook that unmounts it would find its own working folder in the way.
    posix_spawn_file_actions_addchdir_np(&actions, "/");
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    const short signalFlags = FVCancellingSignals::restoreDefaultsInChild(attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, signalFlags | POSIX_SPAWN_SETPGROUP);

    std::vector<std::string> entries = environmentWith(environment);
    std::vector<char*> envp;
    for (std::string& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string shell = "/bin/sh", dashC = "-c", text = command;
    char* argv[] = {shell.data(), dashC.data(), text.data(), nullptr};
    const int error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv, envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

}  // namespace

FVHookProcessResult FVHookProcess::run(const std::string& command, const Environment& environment,
                                       std::chrono::milliseconds limit, const LineHandler& output,
                                       const StopRequest& stop) {
    FVHookProcessResult result;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        result.error = std::string("cannot create a pipe: ") + std::strerror(errno);
        return result;
    }
    pid_t pid = 0;
    const int error = spawnShell(command, environment, pipeFds[1], pid);
    FVOpenFiles::close(pipeFds[1]);
    if (error != 0) {
        FVOpenFiles::close(pipeFds[0]);
        result.error = std::string("cannot run /bin/sh: ") + std::strerror(error);
        return result;
    }
    result.started = true;

    LineSplitter lines(output);
    char buffer[4096];
    int readEnd = pipeFds[0];
    const Clock::time_point deadline = Clock::now() + limit;
    Clock::time_point killAt{};
    bool terminating = false;
    while (!hasEnded(pid)) {
        const Clock::time_point now = Clock::now();
        if (!terminating && (now >= deadline || (stop && stop()))) {
            (now >= deadline ? result.timedOut : result.stopped) = true;
            kill(-pid, SIGTERM);
            terminating = true;
            killAt = now + kGrace;
        } else if (terminating && now >= killAt) {
            kill(-pid, SIGKILL);
        }
        pollfd fd{readEnd, POLLIN, 0};
        // Once the output is closed, poll only waits out the slice.
        if (poll(&fd, 1, static_cast<int>(kSlice.count())) > 0) {
            ssize_t n = FVFileData::read(readEnd, buffer, sizeof buffer);
            if (n > 0) {
                lines.add(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                FVOpenFiles::close(readEnd);
                readEnd = -1;
            }
        }
    }
    // What a group that ran out of time left behind ends with it.
    if (terminating) kill(-pid, SIGKILL);
    if (readEnd >= 0) {
        // What is already written is read; a process the command left running does not hold the run.
        FVOpenFiles::setNonBlocking(readEnd);
        for (ssize_t n; (n = FVFileData::read(readEnd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR);)
            if (n > 0) lines.add(buffer, static_cast<size_t>(n));
        FVOpenFiles::close(readEnd);
    }
    lines.finish();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

}  // namespace ferrovane
