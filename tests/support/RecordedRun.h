#pragma once
// A run's record made from what a destination's mirror holds now, as a complete run would leave
// it: for tests that need manifests next to real files without running a backup.

#include "manifest/FVManifestEntry.h"

#include <string>
#include <vector>

namespace ferrovane::test {

// Writes <destination>/__runs/<stamp>.fvmanifest listing every item of the mirror with the digest
// of its bytes, then the extra entries; the sources are mirrored one folder per source.
void recordRun(const std::string& destination, const std::string& stamp, const std::vector<std::string>& sources,
               FVManifestOutcome outcome = FVManifestOutcome::Complete, const std::vector<FVManifestEntry>& extra = {});

}  // namespace ferrovane::test
