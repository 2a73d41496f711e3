#pragma once
// A failure of the destination disk itself rather than of one item (FVRunError::isFatal says
// which errnos): read-only, full, failing (EIO) or gone (its driver or device). Any step that
// meets one ends the run at once with a single line naming the cause and the item it struck.

#include <string>
#include <string_view>

namespace ferrovane {

class FVDestinationFailure {
public:
    // action says what was done when it struck ("creating", "archiving", ...).
    FVDestinationFailure(int error, std::string_view action, std::string_view path)
        : error_(error), action_(action), path_(path) {}

    int error() const { return error_; }
    // The one line that ends the run, beginning "ERROR: ".
    std::string message() const;

private:
    int error_;
    std::string action_;
    std::string path_;
};

}  // namespace ferrovane
