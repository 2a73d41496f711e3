#include "engine/run/FVLog.h"

#include "engine/run/FVDate.h"
#include "engine/run/FVLogRotation.h"
#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVItemCreation.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVPathResolution.h"
#include "platform/FVHomeDirectory.h"
#include "platform/FVJournalSink.h"
#include "platform/FVSystemLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace ferrovane {

namespace {

constexpr const char* kClassName = "FVLog";
constexpr const char* kLogName = "Ferrovane.log";
// Root's log, which the package's logrotate rule keeps.
constexpr const char* kSystemLogPath = "/var/log/Ferrovane.log";

}  // namespace

std::string FVLog::logFilePath() {
    // Made absolute at once: threads that walk folders move their own working folder.
    if (const char* path = std::getenv("FERROVANE_LOG_FILE"); path && *path) {
        return FVPathResolution::absolute(path);
    }
    if (geteuid() == 0) return kSystemLogPath;
    std::string state;
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg && *xdg == '/') state = xdg;
    else state = homeDirectory() + "/.local/state";
    return state + "/Ferrovane/" + kLogName;
}

FVLog& FVLog::currentLog() {
    static FVLog* log = new FVLog();  // never destroyed: threads may log during exit
    return *log;
}

FVLog::~FVLog() { closeLog(); }

std::string FVLog::logPath() const {
    std::shared_lock lock(mutex_);
    return logPath_;
}

std::string FVLog::openProblem() const {
    std::shared_lock lock(mutex_);
    return openProblem_;
}

std::string FVLog::unwrittenWarning() const {
    std::shared_lock lock(mutex_);
    if (openProblem_.empty()) return {};
    return fmt::format("the run log could not be written ({}); its lines went to the {}. Set FERROVANE_LOG_FILE "
                       "to a file you can write to keep them there",
                       openProblem_, journal_ ? "journal" : "system log");
}

void FVLog::setRunContext(std::string destination, std::string runStamp) {
    std::unique_lock lock(mutex_);
    destination_ = std::move(destination);
    runStamp_ = std::move(runStamp);
}

void FVLog::newLog() {
    std::unique_lock lock(mutex_);
    closeLocked();
    logPath_ = logFilePath();
    openProblem_.clear();
    journal_ = FVJournalSink::connected();
    if (logPath_ != kSystemLogPath)
        if (std::string problem = FVLogRotation::rotateIfLarger(logPath_); !problem.empty())
            FVSystemLog::error(kClassName, problem);
    struct stat st {};
    if (FVFileStatus::lstat(logPath_.c_str(), &st) != 0) {
        FVItemCreation::makeParentFolders(logPath_);
        int created = FVOpenFiles::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (created < 0) {
            openProblem_ = fmt::format("cannot create {}: {}", logPath_, std::strerror(errno));
            FVSystemLog::error(kClassName, "Cannot create logfile: " + logPath_);
            return;
        }
        FVOpenFiles::close(created);
    }
    int fd = FVOpenFiles::open(logPath_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) {
        openProblem_ = fmt::format("cannot open {}: {}", logPath_, std::strerror(errno));
        FVSystemLog::error(kClassName, "Cannot open logfile: " + logPath_);
        return;
    }
    fd_.store(fd);
}

void FVLog::addLogLine(std::string_view line) {
    std::string text = FVDate::logTimeStamp();
    text.append(": ");
    // Names may hold control characters: escaped, so that showing the log cannot drive a terminal.
    for (char c : line) {
        auto u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\n' && c != '\t') || u == 0x7f) text += fmt::format("\\x{:02x}", u);
        else text.push_back(c);
    }
    text.push_back('\n');
    bool failed = false;
    {
        std::shared_lock lock(mutex_);
        const bool journaled = journal_ && FVJournalSink::send(FVJournalSink::fields(line, destination_, runStamp_));
        int fd = fd_.load();
        if (fd < 0 && journaled) return;
        if (fd < 0) {
            FVSystemLog::error(kClassName, "No logfile: " + std::string(line));
            return;
        }
        // O_APPEND and one write per line keep lines from many threads whole.
        ssize_t n;
        do n = FVFileData::write(fd, text.data(), text.size());
        while (n < 0 && errno == EINTR);
        failed = n != static_cast<ssize_t>(text.size());
    }
    if (failed) {
        FVSystemLog::error(kClassName, "Logging exception. Aborting logging: " + std::string(line));
        std::unique_lock lock(mutex_);
        closeLocked();
    }
}

void FVLog::closeLog() {
    std::unique_lock lock(mutex_);
    closeLocked();
    logPath_.clear();
    destination_.clear();
    runStamp_.clear();
}

void FVLog::closeLocked() {
    int fd = fd_.exchange(-1);
    if (fd >= 0) FVOpenFiles::close(fd);
}

}  // namespace ferrovane
