#include "platform/FVCommandRunner.h"

#include "fs/FVFileData.h"
#include "fs/FVOpenFiles.h"
#include "platform/FVCancellingSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string>

extern char** environ;

namespace ferrovane {

FVCommandResult FVProcessCommandRunner::run(const std::vector<std::string>& argv) {
    FVCommandResult result;
    if (argv.empty()) {
        result.error = "no command";
        return result;
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    // Its error output is kept for the message: "exited with status 1" alone says nothing.
    int errorPipe[2];
    if (pipe2(errorPipe, O_CLOEXEC) != 0) {
        result.error = argv[0] + ": " + std::strerror(errno);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, errorPipe[1], STDERR_FILENO);
    // The command starts with the signals a run blocks or ignores back at their defaults.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, FVCancellingSignals::restoreDefaultsInChild(attributes));
    pid_t pid = 0;
    int error = posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    FVOpenFiles::close(errorPipe[1]);
    if (error != 0) {
        FVOpenFiles::close(errorPipe[0]);
        result.error = argv[0] + ": " + std::strerror(error);
        return result;
    }
    result.started = true;
    std::string errorOutput;
    char buffer[4096];
    for (;;) {
        ssize_t n = FVFileData::read(errorPipe[0], buffer, sizeof buffer);
        if (n > 0) {
            if (errorOutput.size() < 16384) errorOutput.append(buffer, size_t(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    FVOpenFiles::close(errorPipe[0]);
    while (!errorOutput.empty() && (errorOutput.back() == '\n' || errorOutput.back() == ' ')) errorOutput.pop_back();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            result.error = argv[0] + ": " + std::strerror(errno);
            return result;
        }
    }
    if (WIFEXITED(status)) {
        result.exitStatus = WEXITSTATUS(status);
        if (result.exitStatus != 0)
            result.error = errorOutput.empty()
                               ? argv[0] + " exited with status " + std::to_string(result.exitStatus)
                               : argv[0] + ": " + errorOutput;
    } else {
        result.error = argv[0] + " was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return result;
}

}  // namespace ferrovane
