#pragma once
// A failure of the destination disk itself rather than of one item: read-only, full, failing
// (EIO) or gone (its driver or device). Any step that meets one ends the run at once with a single line naming the cause and
// the item it struck; every other errno is an error of that item only.

#include <string>
#include <string_view>

namespace ferrovane {

class FVDestinationFailure {
public:
    // Whether error, met while changing the destination, is of the disk rather than the item.
    static bool isFatal(int error);

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
