#pragma once
// A name search answered from a destination's record of runs instead of a walk of its tree. The
// newest complete manifest, read as a stream, lists the mirror; for each older run whose manifest
// and the one before are complete, what it displaced into __changed/<stamp> or __removed/<stamp>
// comes from the displaced index of the pair (computed once, then read from the cache). The
// record says what should be there, the disk says what is: every hit is confirmed with one look
// at the item before it is reported. What the record cannot tell is handed back to be walked: the
// destination outside the mirror folders of the newest run's sources (mirrors of sources since
// removed from the list stay there), and the part a damaged manifest would have told.

#include "fs/FVConfinedDirectory.h"
#include "manifest/FVManifestEntry.h"
#include "search/FVSearchPlan.h"
#include "search/FVSearchQuery.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVRecordedSearchSink {
public:
    virtual ~FVRecordedSearchSink() = default;
    virtual bool stopped() const = 0;
    // A hit that exists, as a path below the searched folder.
    virtual void report(const std::string& path) = 0;
    // A folder whose matches the record cannot tell; the whole destination when the mirror
    // cannot be told either, less the folders in skipped (full paths) when only they can.
    virtual void walk(const std::string& folder, bool wholeDestination, const std::vector<std::string>& skipped = {}) = 0;
    virtual void warn(const std::string& message) = 0;
};

class FVRecordedSearch {
public:
    // destination is the searched folder as the user named it: hits begin with it.
    // cacheFolder keeps the displaced indexes ("" keeps none).
    FVRecordedSearch(std::string destination, const FVSearchPlan& plan, const FVSearchQuery& query,
                     FVRecordedSearchSink& sink, std::string cacheFolder);

    // Needs plan.listsMirror().
    void run();

private:
    enum class Read { Whole, Damaged, Stopped };

    // header gets the manifest's header once it is open.
    Read forEachMatch(const std::string& manifest, const std::function<void(const FVManifestEntry&)>& visit,
                      FVManifestHeader* header);
    bool isMatch(std::string_view path, FVManifestEntryType type) const;
    bool exists(const std::string& relative) const;
    void walkArchivesOf(const std::string& stamp);
    std::string rootPath() const { return destination_.empty() ? "/" : destination_; }

    const std::string destination_;
    const std::string cacheFolder_;
    const FVConfinedDirectory confined_;
    const FVSearchPlan& plan_;
    const FVSearchQuery& query_;
    FVRecordedSearchSink& sink_;
};

}  // namespace ferrovane
