#include "platform/FVCommandRunner.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

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
    pid_t pid = 0;
    int error = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
    if (error != 0) {
        result.error = argv[0] + ": " + std::strerror(error);
        return result;
    }
    result.started = true;
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
            result.error = argv[0] + " exited with status " + std::to_string(result.exitStatus);
    } else {
        result.error = argv[0] + " was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return result;
}

}  // namespace ferrovane
