#include "scheduling/FVOverdueNotifier.h"

#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

namespace ferrovane {

FVOverdueNotifier::FVOverdueNotifier(FVJobStatusStore store, std::unique_ptr<FVUserNotifier> notifier)
    : store_(std::move(store)), notifier_(std::move(notifier)) {}

bool FVOverdueNotifier::sameDay(std::time_t a, std::time_t b) {
    struct tm first {}, second {};
    localtime_r(&a, &first);
    localtime_r(&b, &second);
    return first.tm_year == second.tm_year && first.tm_yday == second.tm_yday;
}

bool FVOverdueNotifier::tell(const FVOverdueState& state, std::time_t now) {
    if (!state.notice) return false;
    if (state.status && state.status->lastOverdueNotice != 0 && sameDay(state.status->lastOverdueNotice, now))
        return false;
    const std::string text = state.notice->text();
    FVSystemLog::warning(text);
    FVUserNotification notification{"Backups overdue: " + FVText::lastPathComponent(state.destination), text, ""};
    // Shown until dismissed: nothing else tells the user while no run succeeds.
    notification.critical = true;
    if (!notifier_->deliver(notification)) return false;
    if (state.uuid.empty()) return true;
    // Read again: a run may have recorded its attempt since the state was gathered.
    FVJobStatus latest = store_.read(state.uuid).value_or(FVJobStatus{});
    latest.uuid = state.uuid;
    if (latest.destination.empty()) latest.destination = state.destination;
    latest.lastOverdueNotice = now;
    std::string error;
    if (!store_.write(latest, &error))
        FVSystemLog::error("FVOverdueNotifier", "the day's notice could not be kept: " + error);
    return true;
}

void FVOverdueNotifier::noticeIfOverdue(const std::string& uuid) {
    const std::time_t now = std::time(nullptr);
    FVOverdueNotifier notifier(FVJobStatusStore(), makeDesktopNotifier());
    notifier.tell(FVOverdueState::ofJob(uuid, true, notifier.store_, now), now);
}

}  // namespace ferrovane
