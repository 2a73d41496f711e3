#include "app/FVDestinationPresence.h"

#include "engine/config/FVConfigurationFile.h"
#include "platform/FVMountWatcher.h"

#include <sys/stat.h>
#include <unistd.h>

namespace ferrovane {

namespace {

// Often enough that a disk plugged in is taken up at once; a stat of a path that is usually on the
// root file system costs nothing.
constexpr int kReturnCheckMilliseconds = 1000;

}  // namespace

FVDestinationPresence::FVDestinationPresence(QObject* parent) : QObject(parent) {
    returnTimer_.setInterval(kReturnCheckMilliseconds);
    connect(&returnTimer_, &QTimer::timeout, this, &FVDestinationPresence::check);
    // Any mount point that vanishes may be the destination's; the handler runs on the watcher's
    // thread, the check on this object's.
    mountWatcher_ = FVMountWatcher::start([this](const std::string&) {
        QMetaObject::invokeMethod(this, &FVDestinationPresence::check, Qt::QueuedConnection);
    });
}

FVDestinationPresence::~FVDestinationPresence() {
    // Joins the watcher's thread before the object its handler posts to is gone.
    mountWatcher_.reset();
}

void FVDestinationPresence::watch(const std::string& path) {
    path_ = path;
    struct stat st;
    const bool found = stat(path.c_str(), &st) == 0;
    device_ = found ? st.st_dev : 0;
    inode_ = found ? st.st_ino : 0;
    away_ = false;
    returnTimer_.stop();
}

void FVDestinationPresence::awaitReturn(const std::string& path) {
    path_ = path;
    device_ = 0;
    inode_ = 0;
    away_ = true;
    returnTimer_.start();
}

void FVDestinationPresence::stop() {
    path_.clear();
    device_ = 0;
    inode_ = 0;
    away_ = false;
    returnTimer_.stop();
}

bool FVDestinationPresence::isPresent() {
    // A return is taken up by the timer alone, never in the middle of what asked.
    if (!away_) check();
    return !path_.empty() && !away_;
}

void FVDestinationPresence::check() {
    if (path_.empty()) return;
    struct stat st;
    const bool folder = stat(path_.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if (!away_) {
        // An unmounted disk leaves its mount point behind, an empty folder of another file system.
        if (folder && st.st_dev == device_ && st.st_ino == inode_) return;
        awaitReturn(path_);
        emit wentAway();
        return;
    }
    // Back when the folder holds its configuration again and can be written.
    const bool configured = access(FVConfigurationFile::currentPath(path_).c_str(), F_OK) == 0 ||
                            access(FVConfigurationFile::legacyPath(path_).c_str(), F_OK) == 0;
    if (!folder || !configured || access(path_.c_str(), R_OK | W_OK | X_OK) != 0) return;
    watch(path_);
    emit cameBack();
}

}  // namespace ferrovane
