#pragma once
// A failure a run meets, made where the call failed: of what kind it is, in which step, its
// errno and its path, with the words the user reads. FVRunStatus::report is the one place that
// turns it into the log line and the error list's entry (a run with entries ends with errors).

#include <string>
#include <string_view>

namespace ferrovane {

struct FVRunError {
    // Fatal: the destination disk itself failed (read-only, full, failing, gone): the run ends.
    // Item: the item is left as it is, the run goes on. Warning: the item was done, not wholly.
    enum class Kind { Fatal, Item, Warning };

    // The one classification of an errno met while changing the destination: whether it is of
    // the disk rather than of the item.
    static bool isFatal(int error);

    // A failed change of the destination: fatal where the disk failed, else of the kind given.
    static FVRunError atDestination(std::string_view step, int error, std::string path, std::string message,
                                    Kind otherwise = Kind::Item);
    static FVRunError item(std::string_view step, int error, std::string path, std::string message);

    // The same error whose entry in the error list shows the log line's "ERROR: " or "WARNING: "
    // as well (users and scripts match these entries as they always were).
    FVRunError listedWithLevel() &&;

    std::string logLine() const;
    std::string listText() const;

    Kind kind;
    std::string_view step;  // what was done when it struck ("archiving", "removing", ...)
    int error;              // errno of the call that failed; 0 when there is none
    std::string path;
    std::string message;  // without the level
    bool levelInList = false;
};

}  // namespace ferrovane
