// The free-space rule: the reserve and the budget a run may write, what a run would write, and
// what purging archived runs keeps. Its message and the purge on a filling disk are the fault
// suite's space part.

#include "engine/archive/FVOldestRunPurge.h"
#include "engine/session/FVRunPlanner.h"
#include "engine/session/FVSourceBytesBound.h"
#include "engine/session/FVSpaceBudget.h"
#include "support/TempDir.h"

#include "engine/config/FVConfigurationFile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include <random>
#include <sstream>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

constexpr uint64_t MB = 1000 * 1000;
constexpr uint64_t GiB = uint64_t{1} << 30;

FVOptions reserveOptions(bool keep, int64_t megabytes) {
    FVOptions options;
    options.keepFreeSpace = keep;
    options.keepFreeSpaceMB = megabytes;
    return options;
}

// "a" archive folders, "r" an incomplete record, "rc" a complete one, e.g. "rc|a rc|a".
std::vector<FVArchivedRun> runsOf(const std::string& text) {
    std::vector<FVArchivedRun> runs;
    std::stringstream parts(text);
    std::string part;
    while (std::getline(parts, part, '|')) {
        FVArchivedRun run;
        run.stamp = std::to_string(runs.size());
        run.time = static_cast<std::time_t>(runs.size());
        std::stringstream words(part);
        std::string word;
        while (words >> word) {
            if (word == "a") run.hasChangedFolder = true;
            if (word == "r" || word == "rc") {
                run.record = FVRunRecord{};
                if (word == "rc") run.record->summary = FVManifestSummary{FVManifestOutcome::Complete};
            }
        }
        runs.push_back(run);
    }
    return runs;
}

}  // namespace

TEST(SpaceBudget, TheReserveIsTheSettingOrTwoPercentWithinOneGibibyteAndATenth) {
    struct Case {
        bool keep;
        int64_t megabytes;
        uint64_t volume;
        uint64_t reserve;
    } cases[] = {
        {false, 500, 100 * GiB, 0},
        {true, 100, 100 * GiB, 100 * MB},
        {true, 100, 50 * MB, 100 * MB},             // a setting is taken as it is, even above the volume
        {true, 0, 32 * GiB, GiB},                   // 2 % is less than the floor
        {true, 0, 2000 * GiB, 40 * GiB},            // 2 % above the floor
        {true, 0, 5 * GiB, GiB / 2},                // the floor above a tenth: a tenth
        {true, 0, 60 * MB, 6 * MB},                 // a small stick still takes runs
        {true, 0, 999, 99},                         // whole bytes, rounded down
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FVSpaceBudget::reserveFor(reserveOptions(c.keep, c.megabytes), c.volume), c.reserve)
            << c.keep << " " << c.megabytes << " " << c.volume;
    }
    const FVSpaceBudget budget(reserveOptions(true, 10), 25 * MB, GiB);
    EXPECT_EQ(budget.budget(), 15 * MB);
    EXPECT_TRUE(budget.allows(15 * MB));
    EXPECT_FALSE(budget.allows(15 * MB + 1));
    EXPECT_TRUE(budget.afterFreeing(1).allows(15 * MB + 1));
    EXPECT_EQ(FVSpaceBudget(reserveOptions(true, 10), 5 * MB, GiB).budget(), 0u);
}

// New and changed files count whole, in blocks; what is current counts nothing, and neither does
// the destination where it lies inside the source.
TEST(RunPlanner, CountsWhatTheRunWouldWriteAndNotTheDestinationInsideItsSource) {
    TempDir dir;
    const std::string source = dir / "data", destination = source + "/backup";
    makeDirs(destination);
    writeFile(source + "/same", "unchanged");
    writeFile(source + "/changed", "old");
    PlistDict defaults;
    FVConfigurationFile::applyDefaultOptions(defaults);
    FVRunSettings settings;
    settings.targetPath = destination;
    settings.options = FVOptionTable::read(defaults).options;
    FVRunStatus status(false, [] {});
    status.setQuiet(true);
    FVRunPlanner planner(settings, {}, status);
    // Before the first run, every entry is new: the bound charges each (two folders, two files).
    const uint64_t firstRun = planner.bytesToWrite({source});
    EXPECT_EQ(FVSourceBytesBound(status).of({source}), std::optional<uint64_t>(4 * 4096u));
    EXPECT_GT(firstRun, 0u);
    EXPECT_LE(firstRun, 4 * 4096u);
    // The mirror as a finished run leaves it, with the destination's own copy inside it.
    makeDirs(destination + "/data/backup");
    writeFile(destination + "/data/backup/big", std::string(1 << 20, 'b'));
    std::filesystem::copy(source + "/same", destination + "/data/same");
    std::filesystem::copy(source + "/changed", destination + "/data/changed");
    writeFile(source + "/changed", "new and longer");
    writeFile(source + "/new", std::string(5000, 'n'));
    for (const char* name : {"", "same", "backup"}) {
        struct stat st {};
        stat((source + "/" + name).c_str(), &st);
        const timespec times[2] = {st.st_atim, st.st_mtim};
        utimensat(AT_FDCWD, (destination + "/data/" + name).c_str(), times, 0);
    }
    EXPECT_EQ(planner.bytesToWrite({source}), 4096u + 8192u);
}

// Purged to the end on many generated destinations: every complete record left still has the
// archive folders of every later run (a kept point in time stays whole), and the newest run
// and the newest complete record stay.
TEST(OldestRunPurge, EveryPointInTimeLeftStaysWhole) {
    std::mt19937 random(24);
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<FVArchivedRun> runs;
        const int count = 1 + static_cast<int>(random() % 12);
        std::string text;
        for (int i = 0; i < count; ++i) {
            const unsigned kind = random() % 5;
            text += std::string(i ? "|" : "") + (kind == 0 ? "a" : kind == 1 ? "r" : kind == 2 ? "a r" : kind == 3 ? "rc" : "a rc");
        }
        runs = runsOf(text);
        const std::vector<FVArchivedRun> original = runs;
        std::string newestComplete;
        for (const FVArchivedRun& run : original)
            if (run.record && run.record->complete()) newestComplete = run.stamp;
        int steps = 0;
        while (std::optional<FVRunPurgeUnit> unit = FVOldestRunPurge::next(runs)) {
            ASSERT_LT(++steps, 100) << text;
            FVOldestRunPurge::apply(*unit, runs);
            for (size_t k = 0; k < runs.size(); ++k) {
                if (!runs[k].record || !runs[k].record->complete()) continue;
                for (const FVArchivedRun& later : original)
                    if (later.time > runs[k].time && later.hasArchives()) {
                        auto kept = std::find_if(runs.begin(), runs.end(),
                                                 [&](const FVArchivedRun& r) { return r.stamp == later.stamp; });
                        EXPECT_TRUE(kept != runs.end() && kept->hasArchives())
                            << text << ": record " << runs[k].stamp << " lost archives " << later.stamp;
                    }
            }
        }
        ASSERT_FALSE(runs.empty()) << text;
        EXPECT_EQ(runs.back().stamp, original.back().stamp) << text;
        EXPECT_EQ(runs.back().hasArchives(), original.back().hasArchives()) << text;
        if (!newestComplete.empty()) {
            EXPECT_TRUE(std::any_of(runs.begin(), runs.end(), [&](const FVArchivedRun& r) {
                return r.stamp == newestComplete && r.record;
            })) << text;
        }
    }
}
