#include "support/ProcessRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

extern char** environ;

namespace ferrovane::test {

namespace {

// Forks a child with standard input from /dev/null and the given standard output and error, env
// applied, that executes argv.
pid_t spawn(const std::vector<std::string>& argv, const ProcessEnvironment& env, int out, int err) {
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid > 0) return pid;
    dup2(out, 1);
    dup2(err, 2);
    dup2(open("/dev/null", O_RDONLY), 0);
    for (const auto& [key, value] : env) {
        if (value) setenv(key.c_str(), value->c_str(), 1);
        else unsetenv(key.c_str());
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

}  // namespace

pid_t startProcess(const std::vector<std::string>& argv, const ProcessEnvironment& env, const std::string& outPath) {
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) throw std::runtime_error("cannot create " + outPath);
    const pid_t pid = spawn(argv, env, out, 2);
    close(out);
    return pid;
}

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessEnvironment& env, double timeoutSeconds) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    auto start = std::chrono::steady_clock::now();
    const pid_t pid = spawn(argv, env, out[1], err[1]);
    close(out[1]);
    close(err[1]);
    ProcessResult result;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open_ = 2;
    char buffer[65536];
    while (open_ > 0) {
        double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (elapsed > timeoutSeconds) {
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, 200) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
            ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_;
            } else {
                (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) close(f.fd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

}  // namespace ferrovane::test
