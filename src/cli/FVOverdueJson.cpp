#include "cli/FVOverdueJson.h"

#include "cli/FVJsonText.h"

#include <fmt/format.h>

namespace ferrovane::FVOverdueJson {

std::string time(std::time_t at) {
    if (at == 0) return "null";
    struct tm local {};
    localtime_r(&at, &local);
    char text[40];
    std::string stamp(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
    // strftime writes +0100; ISO 8601's extended form, which the rest of the stamp uses, is +01:00.
    if (stamp.size() >= 5) stamp.insert(stamp.size() - 2, ":");
    return "\"" + stamp + "\"";
}

std::string notice(const std::optional<FVOverdueNotice>& notice) {
    if (!notice) return "null";
    return fmt::format("{{\"text\": {}, \"lastGoodRun\": {}, \"days\": {}, \"reason\": {}}}",
                       FVJsonText::quoted(notice->text()), time(notice->lastGoodRun), notice->days,
                       FVJsonText::quoted(notice->reason));
}

std::string state(const FVOverdueState& state, bool notified) {
    std::string attempt = "null";
    if (state.status && state.status->lastAttempt) {
        const FVJobAttempt& last = *state.status->lastAttempt;
        attempt = fmt::format("{{\"time\": {}, \"trigger\": \"{}\", \"outcome\": \"{}\", \"message\": {}}}",
                              time(last.time), jobTriggerName(last.trigger), jobOutcomeName(last.outcome),
                              FVJsonText::quoted(last.message));
    }
    // A job without any attempt does not tell where its destination is.
    const std::string destination =
        state.destination.empty() ? "\"destination\": null" : FVJsonText::pathFields("destination", state.destination);
    return fmt::format("{{\"uuid\": {}, {}, \"reachable\": {}, \"scheduled\": {}, \"overdueDays\": {}, "
                       "\"lastGoodRun\": {}, \"lastAttempt\": {}, \"overdue\": {}, \"notified\": {}}}",
                       FVJsonText::quoted(state.uuid), destination,
                       state.reachable, state.options.isScheduled(), state.options.overdueDays,
                       time(state.lastGoodRun()), attempt, notice(state.notice), notified);
}

}  // namespace ferrovane::FVOverdueJson
