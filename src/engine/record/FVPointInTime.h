#pragma once
// The destination as one complete run left it, read from that run's manifest: what a folder held,
// what is recorded at or below a path. Paths are relative to the mirror, as the layout of that
// run named them (its manifest's header holds the sources and their placement).

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVRunRecords.h"
#include "manifest/FVManifestEntry.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVPointInTime {
public:
    // Nothing, with the reason, when the run's manifest cannot be opened.
    static std::optional<FVPointInTime> open(const std::string& destination, const FVRunRecord& run,
                                             std::string* problem);

    const FVRunRecord& run() const { return run_; }
    // The layout of that run, from its header: maps original paths to the mirror and back.
    const FVMirrorLayout& layout() const { return layout_; }

    // Every recorded entry at or below a mirror path ("" for everything), in the manifest's order.
    // False, with the reason, when the manifest turns out damaged; entries already given stand.
    bool forEachAtOrBelow(const std::string& path, const std::function<void(const FVManifestEntry&)>& visit,
                          std::string* problem) const;
    // The entries directly inside a folder, sorted by name.
    std::optional<std::vector<FVManifestEntry>> entriesIn(const std::string& folder, std::string* problem) const;
    // The entry at a path; nothing when the run has none (problem stays empty) or on damage.
    std::optional<FVManifestEntry> entryAt(const std::string& path, std::string* problem) const;

private:
    FVPointInTime(FVRunRecord run, FVMirrorLayout layout) : run_(std::move(run)), layout_(std::move(layout)) {}

    FVRunRecord run_;
    FVMirrorLayout layout_;
};

}  // namespace ferrovane
