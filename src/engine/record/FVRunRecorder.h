#pragma once
// The record of one run: its manifest, written while the run goes. The walk records what it
// finds current in the mirror, a file with the digest carried forward from the previous record
// (or, when there is none, taken from the mirror by the copy threads); the copy threads record
// what they copy with the digest of the bytes they published; the later names of files with
// several names are recorded once they are linked. A record that cannot be written never stops
// the run: it is said once, as a warning, and the run ends unrecorded.

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVCopyRecord.h"
#include "engine/record/FVDigestIndex.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "fs/FVExtendedAttributes.h"
#include "manifest/FVManifestWriter.h"

#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace ferrovane {

class FVRunRecorder {
public:
    // Creates the run's manifest; a failure is kept as the run's warning.
    FVRunRecorder(const FVRunSettings& settings, std::vector<std::string> sources, FVRunStatus& status);
    ~FVRunRecorder();
    FVRunRecorder(const FVRunRecorder&) = delete;
    FVRunRecorder& operator=(const FVRunRecorder&) = delete;

    // Reads the digests of the newest earlier record; on the run's own thread, as it may be large.
    void loadPreviousDigests();

    // The walk: an entry whose mirror is current (or differs only in mode and owner), at its path
    // relative to the mirror. False for a file without a digest to carry: the copy threads read
    // its mirror and record it (recordCopy).
    // attributes: the source's, when already read (else they are read here).
    bool recordCurrent(const std::string& relative, const std::string& sourcePath, const struct stat& st,
                       const FVManifestAttributes* attributes = nullptr);
    // Whether the newest earlier record holds the link at relative as published from the source
    // link in the state it is in now (same identity, change time and length): its copy is then
    // current, also where the mirror will not show a link's target.
    bool recordedLinkCurrent(const std::string& relative, const struct stat& source) const {
        return S_ISLNK(source.st_mode) && previous_.find(relative, source).has_value();
    }
    // A copy thread: an item copied, failed, or whose digest was taken from the mirror.
    void recordCopy(const FVCopyRecord& record);
    // A folder the walk could not enter, or the mirror of a source that is not there: its mirror is
    // kept as it was, so what it holds is not known.
    void recordNotUpdated(const std::string& relative, const std::string& sourcePath, const struct stat& st);
    // A later name of a file with several names, once it is linked to the first name's copy.
    void recordLaterName(const std::string& relative, const std::string& sourcePath, const struct stat& st);

    // Every attribute of a source item, the access control lists included, sorted by name, as the
    // record keeps them; the two names a copy never carries are left out.
    static FVManifestAttributes attributesOf(const FVExtendedAttributes& source);

    // Whether an item recorded so far has attributes that a copy carries: what a destination
    // without attributes leaves out of its copies (the record keeps them).
    bool recordedCarriedAttributes() const { return carriedAttributes_.load(std::memory_order_relaxed); }

    // Adds the summary and gives the manifest its name; after this nothing more is recorded.
    void finish(FVManifestOutcome outcome);
    // Why this run is not recorded; empty while it is.
    std::string warning() const;

private:
    FVManifestEntry entryOf(std::string relative, const std::string& sourcePath, const struct stat& st,
                            const FVManifestAttributes* attributes) const;
    void add(const FVManifestEntry& entry);
    void noteGroupDigest(const FVManifestEntry& entry);
    void giveUp(const std::string& reason);
    bool recording() const { return writer_ && !givenUp_.load(std::memory_order_relaxed); }

    const FVRunSettings& settings_;
    FVRunStatus& status_;
    const FVMirrorLayout layout_;
    std::unique_ptr<FVManifestWriter> writer_;
    FVDigestIndex previous_;

    std::atomic<bool> givenUp_{false};
    mutable std::mutex mutex_;
    std::string warning_;
    // The digest of each file with several names, for its later names.
    std::unordered_map<uint64_t, FVContentHash> groupDigests_;

    std::atomic<uint64_t> entries_{0};
    std::atomic<uint64_t> files_{0};
    std::atomic<uint64_t> bytes_{0};
    std::atomic<uint64_t> copied_{0};
    std::atomic<bool> carriedAttributes_{false};
};

}  // namespace ferrovane
