#include "platform/FVUserNotifier.h"

#include "engine/FVText.h"

#include <systemd/sd-bus.h>

namespace ferrovane {

namespace {

// A notification server that does not answer within this time is given up on.
constexpr uint64_t kCallTimeoutMicroseconds = 1'000'000;

class FVDesktopNotifier final : public FVUserNotifier {
public:
    void deliver(const FVUserNotification& n) override {
        sd_bus* bus = nullptr;
        if (sd_bus_open_user(&bus) < 0) return;
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
            r = sd_bus_message_append(call, "susssasa{sv}i", "Ferrovane", 0u, "ferrovane",
                                      FVText::validUTF8(n.title).c_str(),
                                      FVText::validUTF8(body).c_str(), 0, 0, -1);
        if (r >= 0) sd_bus_call(bus, call, kCallTimeoutMicroseconds, &error, &reply);
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        sd_bus_flush_close_unref(bus);
    }
};

}  // namespace

std::unique_ptr<FVUserNotifier> makeDesktopNotifier() { return std::make_unique<FVDesktopNotifier>(); }

}  // namespace ferrovane
