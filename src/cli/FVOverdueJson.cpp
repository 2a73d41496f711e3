#include "cli/FVOverdueJson.h"

#include "cli/FVJsonText.h"

#include <fmt/format.h>

namespace ferrovane::FVOverdueJson {

std::string notice(const std::optional<FVOverdueNotice>& notice) {
    if (!notice) return "null";
    return fmt::format("{{\"text\": {}, \"lastGoodRun\": {}, \"days\": {}, \"reason\": {}}}",
                       FVJsonText::quoted(notice->text()), FVJsonText::time(notice->lastGoodRun), notice->days,
                       FVJsonText::quoted(notice->reason));
}

std::string state(const FVOverdueState& state, bool notified) {
    std::string attempt = "null";
    if (state.status && state.status->lastAttempt) {
        const FVJobAttempt& last = *state.status->lastAttempt;
        attempt = fmt::format("{{\"time\": {}, \"trigger\": \"{}\", \"outcome\": \"{}\", \"message\": {}}}",
                              FVJsonText::time(last.time), jobTriggerName(last.trigger), jobOutcomeName(last.outcome),
                              FVJsonText::quoted(last.message));
    }
    // A job without any attempt does not tell where its destination is.
    const std::string destination =
        state.destination.empty() ? "\"destination\": null" : FVJsonText::pathFields("destination", state.destination);
    return fmt::format("{{\"uuid\": {}, {}, \"reachable\": {}, \"scheduled\": {}, \"overdueDays\": {}, "
                       "\"lastGoodRun\": {}, \"lastAttempt\": {}, \"overdue\": {}, \"notified\": {}}}",
                       FVJsonText::quoted(state.uuid), destination,
                       state.reachable, state.options.isScheduled(), state.options.overdueDays,
                       FVJsonText::time(state.lastGoodRun()), attempt, notice(state.notice), notified);
}

}  // namespace ferrovane::FVOverdueJson
