// The change decision: which differences between a source item and its mirror make a copy or an
// update in place, at the destination's time granularity, and that the costly attribute
// comparison is asked only when nothing else decides.

#include "engine/analysis/FVChangeDecision.h"

#include <gtest/gtest.h>

#include <optional>

using namespace ferrovane;

TEST(ChangeDecision, DecidesByExistenceTypeSizeTimeAtTheDestinationsGranularityAttributesAndLastModeAndOwner) {
    using R = FVChangeDecision::Reason;
    using T = FVFileType;
    using Tolerance = FVChangeDecision::Tolerance;
    constexpr int64_t s = 1'000'000'000;
    const Tolerance exact{1, true, true}, fat{2 * s, true, true},
        noModesOrOwners{1, false, false}, noOwners{1, true, false, 01777}, noLinkTimes{1, true, true, 07777, false};
    struct Row {
        const char* what;
        FVChangeDecision::Side source, destination;
        Tolerance tolerance;
        std::optional<bool> xattrsIdentical;  // nothing: attribute changes ignored
        R expected;
        bool xattrsAsked;  // whether the attributes had to be compared
    };
    const Row rows[] = {
        {"destination missing", {T::Regular, 5, 100}, {}, exact, true, R::DestinationMissing, false},
        {"a link over a link of the same target length and date, whatever its mode and attributes",
         {T::SymbolicLink, 5, 100, 0777}, {T::SymbolicLink, 5, 100, 0755}, exact, false, R::Unchanged, false},
        {"a link pointed at a longer target", {T::SymbolicLink, 9, 100}, {T::SymbolicLink, 5, 100}, exact, true,
         R::SizeMismatch, false},
        {"a link made anew", {T::SymbolicLink, 5, 200}, {T::SymbolicLink, 5, 100}, exact, true, R::DateMismatch, false},
        {"a link's date where the destination sets none", {T::SymbolicLink, 5, 200}, {T::SymbolicLink, 5, 100},
         noLinkTimes, true, R::Unchanged, false},
        {"a file's date where the destination sets no link's", {T::Regular, 5, 200}, {T::Regular, 5, 100},
         noLinkTimes, true, R::DateMismatch, false},
        {"a link's owner", {T::SymbolicLink, 5, 100, 0, 1, 1}, {T::SymbolicLink, 5, 100, 0, 2, 1}, exact, true,
         R::ModeOrOwnerMismatch, false},
        {"a link where a file is", {T::SymbolicLink, 5, 100}, {T::Regular, 5, 100}, exact, true, R::TypeMismatch, false},
        {"a folder where a file of the same date is", {T::Directory, 5, 100}, {T::Regular, 5, 100}, exact, true,
         R::TypeMismatch, false},
        {"file sizes differ", {T::Regular, 5, 100}, {T::Regular, 6, 100}, exact, true, R::SizeMismatch, false},
        {"folder sizes are not compared", {T::Directory, 4096, 100}, {T::Directory, 8192, 100}, exact, true,
         R::Unchanged, true},
        {"one nanosecond newer on an exact destination", {T::Regular, 5, 3 * s + 1}, {T::Regular, 5, 3 * s}, exact,
         true, R::DateMismatch, false},
        {"three seconds older", {T::Directory, 5, 7 * s}, {T::Directory, 5, 10 * s}, exact, true, R::DateMismatch, false},
        {"rounded up to FAT's even second", {T::Regular, 5, 3 * s + 1}, {T::Regular, 5, 4 * s}, fat, true, R::Unchanged,
         true},
        {"rounded down to FAT's even second", {T::Regular, 5, 5 * s + 999'999'999}, {T::Regular, 5, 4 * s}, fat, true,
         R::Unchanged, true},
        {"two seconds apart on FAT", {T::Regular, 5, 6 * s}, {T::Regular, 5, 4 * s}, fat, true, R::DateMismatch, false},
        {"attributes differ", {T::Regular, 5, 100}, {T::Regular, 5, 100}, exact, false, R::XattrMismatch, true},
        {"attribute changes ignored", {T::Regular, 5, 100}, {T::Regular, 5, 100}, exact, std::nullopt, R::Unchanged,
         false},
        {"attributes and mode differ: a copy", {T::Regular, 5, 100, 0600}, {T::Regular, 5, 100, 0644}, exact, false,
         R::XattrMismatch, true},
        {"only the mode differs", {T::Regular, 5, 100, 0600}, {T::Regular, 5, 100, 0644}, exact, true,
         R::ModeOrOwnerMismatch, true},
        {"only the group of a folder differs", {T::Directory, 5, 100, 0755, 0, 7}, {T::Directory, 5, 100, 0755, 0, 0},
         exact, std::nullopt, R::ModeOrOwnerMismatch, false},
        {"set-id bits where no owner is kept", {T::Regular, 5, 100, 02755, 1000, 50},
         {T::Regular, 5, 100, 0755, 1000, 1000}, noOwners, true, R::Unchanged, true},
        {"mode and owner where the destination keeps neither", {T::Regular, 5, 100, 0600, 1000, 1000},
         {T::Regular, 5, 100, 0777, 0, 0}, noModesOrOwners, true, R::Unchanged, true},
    };
    for (const Row& row : rows) {
        bool asked = false;
        std::function<bool()> xattrsIdentical;
        if (row.xattrsIdentical) xattrsIdentical = [&] { return asked = true, *row.xattrsIdentical; };
        EXPECT_EQ(FVChangeDecision::decide(row.source, row.destination, xattrsIdentical, row.tolerance), row.expected)
            << row.what;
        EXPECT_EQ(asked, row.xattrsAsked) << row.what;
    }
}
