// The change decision: which differences between a source item and its mirror make a copy, and
// that the costly attribute comparison is asked only when nothing else decides.

#include "engine/FVChangeDecision.h"

#include <gtest/gtest.h>

#include <optional>

using namespace ferrovane;

TEST(ChangeDecision, DecidesByExistenceTypeSizeTheTenSecondWindowAndLastTheAttributes) {
    using R = FVChangeDecision::Reason;
    using T = FVFileType;
    struct Row {
        const char* what;
        FVChangeDecision::Side source, destination;
        std::optional<bool> xattrsIdentical;  // nothing: attribute changes ignored
        R expected;
        bool xattrsAsked;  // whether the attributes had to be compared
    };
    const Row rows[] = {
        {"destination missing", {T::Regular, 5, 100}, {}, true, R::DestinationMissing, false},
        {"a link over a link, whatever else differs", {T::SymbolicLink, 5, 100}, {T::SymbolicLink, 9, 900}, false,
         R::Unchanged, false},
        {"a link where a file is", {T::SymbolicLink, 5, 100}, {T::Regular, 5, 100}, true, R::TypeMismatch, false},
        {"file sizes differ", {T::Regular, 5, 100}, {T::Regular, 6, 100}, true, R::SizeMismatch, false},
        {"folder sizes are not compared", {T::Directory, 4096, 100}, {T::Directory, 8192, 100}, true, R::Unchanged, true},
        {"ten seconds newer is the same date", {T::Regular, 5, 110}, {T::Regular, 5, 100}, true, R::Unchanged, true},
        {"ten seconds older is the same date", {T::Regular, 5, 90}, {T::Regular, 5, 100}, true, R::Unchanged, true},
        {"eleven seconds newer", {T::Regular, 5, 111}, {T::Regular, 5, 100}, true, R::DateMismatch, false},
        {"eleven seconds older", {T::Directory, 5, 89}, {T::Directory, 5, 100}, true, R::DateMismatch, false},
        {"attributes differ", {T::Regular, 5, 100}, {T::Regular, 5, 100}, false, R::XattrMismatch, true},
        {"attribute changes ignored", {T::Regular, 5, 100}, {T::Regular, 5, 100}, std::nullopt, R::Unchanged, false},
    };
    for (const Row& row : rows) {
        bool asked = false;
        std::function<bool()> xattrsIdentical;
        if (row.xattrsIdentical) xattrsIdentical = [&] { return asked = true, *row.xattrsIdentical; };
        EXPECT_EQ(FVChangeDecision::decide(row.source, row.destination, xattrsIdentical), row.expected) << row.what;
        EXPECT_EQ(asked, row.xattrsAsked) << row.what;
    }
}
