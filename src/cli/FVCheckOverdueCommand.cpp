#include "cli/FVCheckOverdueCommand.h"

#include "cli/FVJsonText.h"
#include "cli/FVOverdueJson.h"
#include "cli/FVOutput.h"
#include "fs/FVFileStatus.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "scheduling/FVOverdueNotifier.h"
#include "scheduling/FVScheduleSummary.h"
#include "search/FVSearchText.h"

#include <unistd.h>

namespace ferrovane::FVCheckOverdueCommand {

namespace {

std::string shown(std::string_view text) { return FVSearchText::printable(text); }

void printText(const FVOverdueState& state, bool notified) {
    if (state.destination.empty()) {
        FVOutput::print(stdout, "{}\n    No run of this job has been attempted yet.\n", state.uuid);
        return;
    }
    FVOutput::print(stdout, "{}{}\n", shown(state.destination), state.reachable ? "" : " (not connected)");
    if (state.notice)
        FVOutput::print(stdout, "    Overdue: {}{}\n", shown(state.notice->text()), notified ? " (notified)" : "");
    else if (!state.options.isScheduled())
        FVOutput::print(stdout, "    Its backups do not start by themselves: never overdue.\n");
    else if (state.options.overdueDays <= 0)
        FVOutput::print(stdout, "    Overdue notices are off.\n");
    else
        FVOutput::print(stdout, "    Last good run: {}; overdue after {} day{}.\n",
                        state.lastGoodRun() ? FVScheduleSummary::localTimeText(state.lastGoodRun()) : "none yet",
                        state.options.overdueDays, state.options.overdueDays == 1 ? "" : "s");
}

}  // namespace

int main(bool json, bool notify) {
    const std::time_t now = std::time(nullptr);
    FVLaunchAgentManager jobs(std::make_shared<FVProcessCommandRunner>());
    FVJobStatusStore store;
    FVOverdueNotifier notifier(store, makeDesktopNotifier());
    if (json) FVOutput::print(stdout, "{{{}, \"destinations\": [", FVJsonText::formatVersionField());
    const char* separator = "";
    for (const std::string& uuid : jobs.jobIdentifiers()) {
        // While the disk is away, a job that starts backups (not only verifications) says it is scheduled.
        auto written = [&](FVJobKind kind) {
            return FVFileStatus::access((jobs.jobDirectory() + FVLaunchAgentManager::triggeringUnit(uuid, kind)).c_str(), F_OK) == 0;
        };
        const bool startsRuns = written(FVJobKind::Backup) || written(FVJobKind::Connect);
        FVOverdueState state = FVOverdueState::ofJob(uuid, startsRuns, store, now);
        const bool notified = notify && notifier.tell(state, now);
        if (json) FVOutput::print(stdout, "{}\n  {}", separator, FVOverdueJson::state(state, notified));
        else printText(state, notified);
        separator = ",";
    }
    if (json) FVOutput::print(stdout, "]}}\n");
    else if (!*separator) FVOutput::print(stdout, "No scheduled backups.\n");
    return 0;
}

}  // namespace ferrovane::FVCheckOverdueCommand
