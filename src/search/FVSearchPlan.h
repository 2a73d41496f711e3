#pragma once
// What a search of a destination can learn from its record of runs, decided before any manifest
// is read: every run the destination knows of (by its manifest or by its archive folders), newest
// first, and for each whether its manifest is complete. The newest run's complete manifest lists
// the mirror; what a run moved into its archive folders follows from its manifest and the one
// before, when both are complete. Everything else (a destination without records, archives of
// runs older than the first manifest, runs that stopped or failed) is walked.

#include <ctime>
#include <string>
#include <vector>

namespace ferrovane {

class FVSearchPlan {
public:
    struct Run {
        std::string stamp;
        std::time_t time = 0;
        std::string manifest;  // "" when the run left no manifest
        bool complete = false;
    };

    static FVSearchPlan of(const std::string& destination);

    const std::vector<Run>& runs() const { return runs_; }
    // Manifests that cannot be used although they carry a run's name, with the reason.
    const std::vector<std::string>& problems() const { return problems_; }
    // Whether the mirror is the newest run's, as its complete manifest lists it.
    bool listsMirror() const { return !runs_.empty() && runs_.front().complete; }
    // Whether the record tells what run i (newest first) displaced into its archive folders.
    bool tellsArchivesOf(size_t i) const {
        return i + 1 < runs_.size() && runs_[i].complete && runs_[i + 1].complete;
    }

private:
    std::vector<Run> runs_;
    std::vector<std::string> problems_;
};

}  // namespace ferrovane
