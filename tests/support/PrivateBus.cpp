#include "support/PrivateBus.h"

#include "support/TempDir.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace ferrovane::test {

namespace {

// Starts a program with stdout on a pipe and returns its first line (empty on failure).
pid_t spawnAndReadLine(const std::vector<std::string>& argv, const std::string& busAddress, std::string& line) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        if (!busAddress.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", busAddress.c_str(), 1);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(fds[1]);
    line.clear();
    pollfd p{fds[0], POLLIN, 0};
    char c;
    while (poll(&p, 1, 5000) > 0 && read(fds[0], &c, 1) == 1 && c != '\n') line.push_back(c);
    close(fds[0]);
    return pid;
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

}  // namespace

PrivateBus::PrivateBus(const std::string& recorderPath) {
    char tmpl[] = "/tmp/ferrovane-bus-XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir_ = tmpl;
    recordPath_ = dir_ + "/notifications.txt";
    std::string line;
    daemon_ = spawnAndReadLine({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                "--address=unix:path=" + dir_ + "/bus", "--print-address=1"},
                               "", line);
    if (line.empty()) return;
    if (!recorderPath.empty()) {
        std::string ready;
        recorder_ = spawnAndReadLine({recorderPath, recordPath_}, line, ready);
        if (ready != "ready") return;
    }
    address_ = line;
}

PrivateBus::~PrivateBus() {
    stop(recorder_);
    stop(daemon_);
    if (!dir_.empty()) {
        std::string cmd = "rm -rf '" + dir_ + "'";
        int ignored = std::system(cmd.c_str());
        (void)ignored;
    }
}

std::vector<RecordedNotification> PrivateBus::recordedNotifications() const {
    std::vector<RecordedNotification> out;
    std::istringstream in(readFile(recordPath_));
    for (std::string line; std::getline(in, line);) {
        // title, body, replaces_id, id, desktop-entry, urgency
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
        if (fields.size() < 6) fields.resize(6);
        RecordedNotification n;
        n.text = fields[0] + "\t" + fields[1];
        n.replacesId = static_cast<unsigned>(std::strtoul(fields[2].c_str(), nullptr, 10));
        n.id = static_cast<unsigned>(std::strtoul(fields[3].c_str(), nullptr, 10));
        n.desktopEntry = fields[4];
        n.urgency = fields[5].empty() ? -1 : std::atoi(fields[5].c_str());
        out.push_back(n);
    }
    return out;
}

}  // namespace ferrovane::test
