#include "platform/FVMountWatcher.h"

#include "fs/FVFileData.h"
#include "fs/FVOpenFiles.h"
#include "platform/FVSystemLog.h"

#include <libmount/libmount.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <set>
#include <thread>

namespace ferrovane {

namespace {

std::set<std::string> currentMountPoints() {
    std::set<std::string> points;
    libmnt_table* table = mnt_new_table_from_file("/proc/self/mountinfo");
    if (!table) return points;
    libmnt_iter* it = mnt_new_iter(MNT_ITER_FORWARD);
    libmnt_fs* fs = nullptr;
    while (mnt_table_next_fs(table, it, &fs) == 0)
        if (const char* target = mnt_fs_get_target(fs)) points.insert(target);
    mnt_free_iter(it);
    mnt_unref_table(table);
    return points;
}

class FVLibmountWatcher final : public FVMountWatcher {
public:
    FVLibmountWatcher(libmnt_monitor* monitor, int stopFd, Handler handler)
        : monitor_(monitor), stopFd_(stopFd), handler_(std::move(handler)), known_(currentMountPoints()),
          thread_([this] { loop(); }) {}

    ~FVLibmountWatcher() override {
        uint64_t one = 1;
        ssize_t ignored = FVFileData::write(stopFd_, &one, sizeof one);
        (void)ignored;
        thread_.join();
        FVOpenFiles::close(stopFd_);
        mnt_unref_monitor(monitor_);
    }

private:
    void loop() {
        pollfd fds[2] = {{mnt_monitor_get_fd(monitor_), POLLIN, 0}, {stopFd_, POLLIN, 0}};
        for (;;) {
            if (poll(fds, 2, -1) < 0) continue;
            if (fds[1].revents) return;
            const char* file = nullptr;
            int type = 0;
            while (mnt_monitor_next_change(monitor_, &file, &type) == 0) {
            }
            std::set<std::string> now = currentMountPoints();
            for (const std::string& point : known_)
                if (!now.count(point)) handler_(point);
            known_ = std::move(now);
        }
    }

    libmnt_monitor* monitor_;
    int stopFd_;
    Handler handler_;
    std::set<std::string> known_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<FVMountWatcher> FVMountWatcher::start(Handler handler) {
    libmnt_monitor* monitor = mnt_new_monitor();
    if (!monitor || mnt_monitor_enable_kernel(monitor, 1) < 0 || mnt_monitor_get_fd(monitor) < 0) {
        if (monitor) mnt_unref_monitor(monitor);
        FVSystemLog::error("FVMountWatcher", "Cannot watch the mount table; unmounts will not be noticed.");
        return nullptr;
    }
    int stopFd = eventfd(0, EFD_CLOEXEC);
    if (stopFd < 0) {
        mnt_unref_monitor(monitor);
        return nullptr;
    }
    return std::make_unique<FVLibmountWatcher>(monitor, stopFd, std::move(handler));
}

}  // namespace ferrovane
