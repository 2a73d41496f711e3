#pragma once
// Proves a destination intact: reads every file of the mirror and of the archives again and
// compares its bytes with the digest its runs recorded. The mirror is held against the newest
// complete run and the runs after it; a file archived by run S against the newest run before S
// that recorded its path. Optionally each source file is compared with its mirror copy's digest,
// which finds a change whose size and time were put back.
//
// Reads only: the destination lock is taken shared (search, versions and restores go on beside
// it), and nothing is written but one line in the run log.

#include "engine/record/FVRunRecords.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace ferrovane {

struct FVVerificationFinding {
    enum class Kind {
        Damaged,        // bytes or type differ from the record
        Missing,        // recorded, not there
        Unexpected,     // there, not recorded
        SourceDiffers,  // a source file's bytes differ from its mirror copy's record
        Unreadable,     // could not be read; says nothing about its bytes
        Gone,           // a version of the chosen run that no archive kept (archiving was off, or purged)
        Unrecorded,     // an archive folder older than the first record: nothing to compare it with
    };
    Kind kind;
    std::string path;    // absolute
    std::string detail;  // why, for damaged and unreadable ones

    static const char* kindName(Kind kind);
};

struct FVVerificationSummary {
    enum class Status { Clean, Differs, Cancelled, CannotRun, Busy };
    Status status = Status::CannotRun;
    std::string problem;  // CannotRun: why, and what to do
    std::string run;      // the stamp of the run the mirror was held against
    uint64_t files = 0;   // files read
    uint64_t bytes = 0;
    uint64_t damaged = 0, missing = 0, unexpected = 0, sourcesDiffering = 0, unreadable = 0, gone = 0;
    // Archived files older than the first record: nothing to compare them with.
    uint64_t unrecorded = 0;
};

class FVVerification {
public:
    struct Options {
        std::string destination;
        std::string at;           // a run's stamp or a date; empty: the newest complete run
        bool sources = false;
        unsigned readers = 4;
    };
    struct Progress {
        const char* task;  // what is read now
        float percent;
        uint64_t files;
        uint64_t bytes;
    };
    // Both are called from any thread, never two at once.
    using ProgressCallback = std::function<void(const Progress&)>;
    using FindingCallback = std::function<void(const FVVerificationFinding&)>;

    FVVerification(Options options, ProgressCallback progress, FindingCallback finding);

    FVVerificationSummary run();
    // Safe from any thread; run() returns soon after with the status Cancelled.
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }

    // The line a summary shows and logs.
    static std::string describe(const FVVerificationSummary& summary);

private:
    Options options_;
    ProgressCallback progress_;
    FindingCallback finding_;
    std::atomic<bool> cancelled_{false};
};

}  // namespace ferrovane
