#pragma once
// The overdue state in the commands' JSON: local times in ISO 8601 with their offset
// ("2026-11-10T14:02:00+01:00"), so that a script sees the user's day and the moment alike.

#include "scheduling/FVOverdueState.h"

#include <ctime>
#include <optional>
#include <string>

namespace ferrovane::FVOverdueJson {

// A quoted time, or null for 0.
std::string time(std::time_t at);
// {"text", "lastGoodRun", "days", "reason"}, or null.
std::string notice(const std::optional<FVOverdueNotice>& notice);
// One destination of "ferrovane check-overdue --json".
std::string state(const FVOverdueState& state, bool notified);

}  // namespace ferrovane::FVOverdueJson
