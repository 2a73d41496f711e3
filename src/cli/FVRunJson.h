#pragma once
// The JSON object that ends a backup run with --json or --progress=json (one line, so that it
// is also the last line of an NDJSON stream).

#include "engine/session/FVBackupSession.h"

#include <string>
#include <string_view>

namespace ferrovane::FVRunJson {

// outcome: finished, warnings, errors, stopped, failed, no-space or skipped; summary: the counts (the
// session's own, or those of a run stopped before it started).
std::string summary(const std::string& destination, const FVBackupSession& session, const FVRunSummary& summary,
                    std::string_view outcome);

}  // namespace ferrovane::FVRunJson
