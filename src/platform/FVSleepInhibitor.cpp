#include "platform/FVSleepInhibitor.h"

#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>

namespace ferrovane {

bool FVSleepInhibitor::acquire(const std::string& why) {
    release();
    problem_.clear();
    sd_bus* bus = nullptr;
    if (int r = sd_bus_open_system(&bus); r < 0) {
        problem_ = std::string("no system bus: ") + std::strerror(-r);
        return false;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1",
                               "org.freedesktop.login1.Manager", "Inhibit", &error, &reply, "ssss",
                               "sleep:idle", "Ferrovane", why.c_str(), "block");
    int fd = -1;
    if (r >= 0 && sd_bus_message_read(reply, "h", &fd) >= 0 && fd >= 0)
        fd_.store(FVOpenFiles::duplicate(fd));  // the reply owns fd; the lock lasts while ours is open
    if (fd_.load() < 0)
        problem_ = std::string("logind refused: ") +
                   (error.message ? error.message : r < 0 ? std::strerror(-r) : "no lock in its answer");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return fd_.load() >= 0;
}

void FVSleepInhibitor::release() {
    int fd = fd_.exchange(-1);
    if (fd >= 0) FVOpenFiles::close(fd);
}

}  // namespace ferrovane
