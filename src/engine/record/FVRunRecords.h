#pragma once
// The destination's record of its runs: one manifest per run in <destination>/__runs, named by
// the run's stamp. Lists the runs, oldest first, and finds the run that a point in time names.

#include "manifest/FVManifestEntry.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVRunRecord {
    std::string stamp;
    std::time_t time = 0;
    std::string path;  // the manifest file
    // Read from the manifest's end; nothing when it is damaged (problem says how).
    std::optional<FVManifestSummary> summary;
    std::string problem;

    bool complete() const { return summary && summary->outcome == FVManifestOutcome::Complete; }
};

class FVRunRecords {
public:
    explicit FVRunRecords(const std::string& destination);

    const std::string& folder() const { return folder_; }
    // Every finished manifest, oldest first; temporary files of killed runs are not runs. Empty
    // when the destination has no records (made by an older version, or never run).
    std::vector<FVRunRecord> list() const;
    // The newest run whose record was closed with its summary; nothing when there is none.
    std::optional<FVRunRecord> newestClosed() const;
    // The manifest path of a stamp.
    std::string pathOf(const std::string& stamp) const;

    // The complete run a user's "--at" names: a stamp exactly, or the last complete run at or before
    // a date ("2026-11-20": the end of that day) or a time ("2026-11-20 14:00", "2026-11-20 14:00:30"),
    // local time. Nothing, with a message that says what exists, when no run fits.
    std::optional<FVRunRecord> resolve(const std::string& at, std::string* problem) const;
    // The moment a date or time names, local time; nothing when the text is neither.
    static std::optional<std::time_t> parseMoment(const std::string& text);

private:
    std::string folder_;
};

}  // namespace ferrovane
