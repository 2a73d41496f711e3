#pragma once
// Telling the user that a destination's backups are overdue: a desktop notification that stays
// until dismissed, at most one per destination and day, and a line in the system log whenever a
// notice is due (root's jobs have no desktop to tell).

#include "platform/FVUserNotifier.h"
#include "scheduling/FVOverdueState.h"

#include <ctime>
#include <memory>
#include <string>

namespace ferrovane {

class FVOverdueNotifier {
public:
    FVOverdueNotifier(FVJobStatusStore store, std::unique_ptr<FVUserNotifier> notifier);

    // Tells the user of state's notice unless the user was told today; true when a notification
    // server took it now. The day's notice is kept in the job status only once it was shown.
    bool tell(const FVOverdueState& state, std::time_t now);

    // Called at the end of a scheduled attempt (trigger schedule or connect), once the attempt is
    // recorded: evaluates the destination of this identity and tells the user when it is overdue.
    static void noticeIfOverdue(const std::string& uuid);

    // Whether two moments fall on the same local calendar day.
    static bool sameDay(std::time_t a, std::time_t b);

private:
    FVJobStatusStore store_;
    std::unique_ptr<FVUserNotifier> notifier_;
};

}  // namespace ferrovane
