#pragma once
// Desktop notifications for the start and end of runs.

#include <memory>
#include <string>

namespace ferrovane {

struct FVUserNotification {
    std::string title;
    std::string subtitle;
    std::string informativeText;
    // Takes the place of the last notification this notifier showed (a run's start, replaced by
    // its end) instead of adding one more.
    bool replacesPrevious = false;
    // A run that ended with errors: shown until the user dismisses it.
    bool critical = false;
};

class FVUserNotifier {
public:
    virtual ~FVUserNotifier() = default;
    // Hands the notification over; never fails visibly and never blocks for long. True when a
    // notification server took it.
    virtual bool deliver(const FVUserNotification& notification) = 0;
};

// org.freedesktop.Notifications on the session bus. Without a bus or a notification server
// nothing is shown and nothing is reported.
std::unique_ptr<FVUserNotifier> makeDesktopNotifier();

}  // namespace ferrovane
