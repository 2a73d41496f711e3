#pragma once
// A failure a run meets, made where the call failed: of what kind it is, in which step, its
// errno and its path, with the words the user reads. Its log line and its entry in the error list
// are made here only; FVRunStatus::report is the one place that records them (a run with entries
// ends with errors).

#include "engine/run/FVDestinationFailure.h"

#include <string>
#include <string_view>

namespace ferrovane {

struct FVRunError {
    // Fatal: the destination disk itself failed (read-only, full, failing, gone): the run ends.
    // RetryOnce: an item's failure that may pass on a second try; the one that failed again is
    // an Item error. Item: the item is left as it is, the run goes on. Warning: the item was
    // done, not wholly.
    enum class Kind { Fatal, RetryOnce, Item, Warning };
    // What the error list holds of it: its message, its log line, or nothing (a warning that is
    // the log's alone).
    enum class Listed { Message, LogLine, Nothing };

    // The one classification of an errno met while changing the destination: whether it is of
    // the disk rather than of the item.
    static bool isFatal(int error);

    // A failed change of the destination: fatal where the disk failed, else of the kind given.
    static FVRunError atDestination(std::string_view step, int error, std::string path, std::string message,
                                    Kind otherwise = Kind::Item);
    static FVRunError item(std::string_view step, int error, std::string path, std::string message);
    static FVRunError retryOnce(std::string_view step, int error, std::string path, std::string message);
    static FVRunError warning(std::string_view step, int error, std::string path, std::string message);

    // The same error whose entry in the error list, if it has one, shows the log line's "ERROR: "
    // or "WARNING: " as well (users and scripts match these entries as they always were).
    FVRunError listedWithLevel() &&;
    // The same error for the log alone, without an entry in the error list.
    FVRunError loggedOnly() &&;
    // The same error under another level's word: the copy worker has always said "Error: " for a
    // destination it could not replace.
    FVRunError taggedAs(std::string_view level) &&;
    // A retried error that failed again: an item's error now.
    FVRunError retried() &&;

    bool isListed() const { return listed != Listed::Nothing; }
    // The line that ends the run for a fatal error.
    FVDestinationFailure destinationFailure() const { return {error, step, path}; }
    std::string logLine() const;
    std::string listText() const;

    Kind kind = Kind::Item;
    std::string_view step;  // what was done when it struck ("archiving", "removing", ...)
    int error = 0;          // errno of the call that failed; 0 when there is none
    std::string path;
    std::string message;  // without the level
    Listed listed = Listed::Message;
    std::string_view level{};  // the level's word in the log line when not that of the kind
};

}  // namespace ferrovane
