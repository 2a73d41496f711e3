#include "scheduling/FVOverdueState.h"

#include "engine/record/FVRunRecords.h"

#include <algorithm>

namespace ferrovane {

std::time_t FVOverdueState::lastGoodRun() const {
    return std::max(lastGoodAtDestination, status ? status->lastSuccess : std::time_t{0});
}

std::time_t FVOverdueState::lastGoodRunAt(const std::string& destination,
                                          const std::vector<FVSourceItemPtr>& sources) {
    const std::vector<FVRunRecord> records = FVRunRecords(destination).list();
    for (auto run = records.rbegin(); run != records.rend(); ++run)
        if (run->complete() && run->summary->errors == 0) return run->time;
    // The record is the better witness: an item's last backup is written after runs with errors too.
    if (!records.empty()) return 0;
    std::optional<double> oldest;
    for (const FVSourceItemPtr& item : sources) {
        if (item->mode() != FVSourceMode::Backup) continue;
        std::optional<PlistValue> date = item->value(FVSourceKey::lastBackupDate);
        if (!date || !date->is<PlistDate>()) return 0;
        oldest = std::min(oldest.value_or(date->get<PlistDate>()->secondsSince1970),
                          date->get<PlistDate>()->secondsSince1970);
    }
    return static_cast<std::time_t>(oldest.value_or(0));
}

FVOverdueState FVOverdueState::ofDestination(const std::string& destination, const FVConfiguration& configuration,
                                             const FVJobStatusStore& store, std::time_t now) {
    FVOverdueState state;
    state.destination = destination;
    state.reachable = true;
    // An option that cannot be used reads as its default here: the run itself refuses it.
    state.options = FVOptionTable::read(*configuration.settings).options;
    state.uuid = state.options.UUID;
    if (!state.uuid.empty()) state.status = store.read(state.uuid);
    state.lastGoodAtDestination = lastGoodRunAt(destination, configuration.sources);
    state.notice = FVOverdueCheck::evaluate(state.options, destination, state.status, state.lastGoodAtDestination, now);
    return state;
}

FVOverdueState FVOverdueState::ofJob(const std::string& uuid, bool startsRuns, const FVJobStatusStore& store,
                                     std::time_t now) {
    FVOverdueState state;
    state.uuid = uuid;
    state.status = store.read(uuid);
    // Without a status no run was ever attempted: nothing tells where the destination is.
    if (!state.status || state.status->destination.empty()) return state;
    state.destination = state.status->destination;
    FVConfigurationReadResult loaded = FVConfigurationFile::read(FVConfigurationFile::formattedPath(state.destination));
    if (loaded.status == FVConfigurationReadStatus::Ok) {
        FVOptions options = FVOptionTable::read(*loaded.configuration.settings).options;
        // Another disk mounted at the same place is not this destination.
        if (options.UUID == uuid) return ofDestination(state.destination, loaded.configuration, store, now);
    }
    state.options.automationEnabled = startsRuns || state.status->lastScheduledAttempt.has_value();
    state.options.overdueDays = state.status->overdueDays;
    state.notice = FVOverdueCheck::evaluate(state.options, state.destination, state.status, 0, now);
    const std::optional<FVJobAttempt>& latest = state.status->lastAttempt;
    const bool explained = latest && state.notice && latest->time >= state.notice->lastGoodRun &&
                           !FVOverdueCheck::reasonFor(*latest).empty();
    if (state.notice && !explained) state.notice->reason = "the disk is not connected";
    return state;
}

}  // namespace ferrovane
