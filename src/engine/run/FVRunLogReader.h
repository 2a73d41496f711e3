#pragma once
// Reads the run log back as runs: the log is one file for every destination, each line with its
// time stamp, each backup or restore opened by a line that names its destination and closed by
// one that says how it ended.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

struct FVLoggedRun {
    enum class Kind { Backup, Restore };
    // Unfinished: no closing line (still running, or the program ended on the way).
    enum class Outcome { Finished, Stopped, Refused, NoRoom, Unfinished };

    Kind kind = Kind::Backup;
    Outcome outcome = Outcome::Unfinished;
    std::string time;  // the first line's time stamp, "YYYY-MM-DD HH:MM:SS"
    std::string destination;
    uint64_t changedItems = 0;  // a backup's "items changed" over its sources; a restore's files
    size_t errorCount = 0;
    // "HH:MM:SS text", the errors first, then the rest in the order written.
    std::vector<std::string> lines;
};

class FVRunLogReader {
public:
    // The runs in text, oldest first. Lines outside a run (a verify, a purge before the start)
    // belong to none.
    static std::vector<FVLoggedRun> parse(std::string_view text);
    // The newest runs to destination in the log file at path, newest first, at most limit of
    // them; only the file's last tailBytes are read. Empty with problem set when it cannot be read;
    // a log that does not exist yet holds no runs.
    static std::vector<FVLoggedRun> recentRuns(const std::string& path, const std::string& destination, size_t limit,
                                               std::string* problem, size_t tailBytes = 8 << 20);
};

}  // namespace ferrovane
