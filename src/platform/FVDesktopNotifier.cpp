#include "platform/FVUserNotifier.h"

#include "fs/FVText.h"

#include <systemd/sd-bus.h>

namespace ferrovane {

namespace {

// A notification server that does not answer within this time is given up on.
constexpr uint64_t kCallTimeoutMicroseconds = 1'000'000;
constexpr uint8_t kUrgencyNormal = 1;
constexpr uint8_t kUrgencyCritical = 2;

class FVDesktopNotifier final : public FVUserNotifier {
public:
    bool deliver(const FVUserNotification& n) override {
        sd_bus* bus = nullptr;
        if (sd_bus_open_user(&bus) < 0) return false;
        std::string body = n.subtitle;
        if (!n.informativeText.empty()) {
            if (!body.empty()) body += "\n";
            body += n.informativeText;
        }
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        int r = sd_bus_message_new_method_call(bus, &call, "org.freedesktop.Notifications",
                                               "/org/freedesktop/Notifications",
                                               "org.freedesktop.Notifications", "Notify");
        if (r >= 0)
            r = sd_bus_message_append(call, "susssas", "Ferrovane", n.replacesPrevious ? lastId_ : 0u, "ferrovane",
                                      FVText::validUTF8(n.title).c_str(), FVText::validUTF8(body).c_str(), 0);
        // The desktop entry lets the desktop group the notifications under the program's name.
        if (r >= 0)
            r = sd_bus_message_append(call, "a{sv}", 2, "desktop-entry", "s", "ferrovane", "urgency", "y",
                                      n.critical ? kUrgencyCritical : kUrgencyNormal);
        if (r >= 0) r = sd_bus_message_append(call, "i", -1);
        uint32_t id = 0;
        const bool taken = r >= 0 && sd_bus_call(bus, call, kCallTimeoutMicroseconds, &error, &reply) >= 0 &&
                           sd_bus_message_read(reply, "u", &id) >= 0;
        if (taken) lastId_ = id;
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        sd_bus_flush_close_unref(bus);
        return taken;
    }

private:
    uint32_t lastId_ = 0;
};

}  // namespace

std::unique_ptr<FVUserNotifier> makeDesktopNotifier() { return std::make_unique<FVDesktopNotifier>(); }

}  // namespace ferrovane
