#pragma once
// A name search answered from a destination's record of runs instead of a walk of its tree. The
// newest complete manifest lists the mirror; for each older run whose manifest and the one before
// are complete, the entries it displaced into __changed/<stamp> or __removed/<stamp> are those the
// earlier manifest records and the run's records differently or not at all. Each manifest is
// read once, as a stream, newest first, keeping only the fingerprints of the entries whose names
// match. The record says what should be there, the disk says what is: every hit is confirmed
// with one look at the item before it is reported. What the record cannot tell is handed back to
// be walked, as is everything after a manifest turns out damaged.

#include "fs/FVConfinedDirectory.h"
#include "search/FVSearchPlan.h"
#include "search/FVSearchQuery.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

namespace ferrovane {

struct FVManifestEntry;

class FVRecordedSearchSink {
public:
    virtual ~FVRecordedSearchSink() = default;
    virtual bool stopped() const = 0;
    // A hit that exists, as a path below the searched folder.
    virtual void report(const std::string& path) = 0;
    // A folder whose matches the record cannot tell; the whole destination when the mirror
    // cannot be told either.
    virtual void walk(const std::string& folder, bool wholeDestination) = 0;
    virtual void warn(const std::string& message) = 0;
};

class FVRecordedSearch {
public:
    // destination is the searched folder as the user named it: hits begin with it.
    FVRecordedSearch(std::string destination, const FVSearchPlan& plan, const FVSearchQuery& query,
                     FVRecordedSearchSink& sink);

    // Needs plan.listsMirror().
    void run();

private:
    // Path hash to a fingerprint of what the entry records.
    using Matches = std::unordered_map<uint64_t, uint64_t>;
    enum class Read { Whole, Damaged, Stopped };

    Read forEachMatch(const std::string& manifest, const std::function<void(const FVManifestEntry&)>& visit);
    bool exists(const std::string& relative) const;
    void walkArchivesOf(const std::string& stamp);

    const std::string destination_;
    const FVConfinedDirectory confined_;
    const FVSearchPlan& plan_;
    const FVSearchQuery& query_;
    FVRecordedSearchSink& sink_;
};

}  // namespace ferrovane
