#pragma once
// The overdue state in the commands' JSON.

#include "scheduling/FVOverdueState.h"

#include <ctime>
#include <optional>
#include <string>

namespace ferrovane::FVOverdueJson {

// {"text", "lastGoodRun", "days", "reason"}, or null.
std::string notice(const std::optional<FVOverdueNotice>& notice);
// One destination of "ferrovane check-overdue --json".
std::string state(const FVOverdueState& state, bool notified);

}  // namespace ferrovane::FVOverdueJson
