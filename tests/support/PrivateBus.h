#pragma once
// A private session bus (dbus-daemon) with a stand-in notification server that records every
// notification it receives, for tests of what the program tells the desktop.

#include <string>
#include <sys/types.h>
#include <vector>

namespace ferrovane::test {

// What a notification server was asked to show, beyond its text.
struct RecordedNotification {
    std::string text;  // "title\tbody", newlines in the body shown as "|"
    unsigned replacesId = 0;
    unsigned id = 0;  // the id the server answered with
    std::string desktopEntry;
    int urgency = -1;  // -1: no urgency hint
};

class PrivateBus {
public:
    // recorderPath: the notification_recorder executable; empty for a bus without a server.
    explicit PrivateBus(const std::string& recorderPath);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool ok() const { return !address_.empty(); }
    const std::string& address() const { return address_; }
    std::vector<RecordedNotification> recordedNotifications() const;

private:
    std::string dir_;
    std::string address_;
    std::string recordPath_;
    pid_t daemon_ = -1;
    pid_t recorder_ = -1;
};

}  // namespace ferrovane::test
