// Which source names a destination can hold, walk order by walk order.

#include "engine/FVDestinationNames.h"

#include <gtest/gtest.h>

using namespace ferrovane;

TEST(DestinationNames, RefusesLaterCaseTwinsInOneFolderOnlyAndNamesTheBytesAFileSystemRefuses) {
    FVDestinationProfile profile;
    profile.fileSystemType = "exfat";
    profile.caseInsensitive = true;
    profile.utf8NamesOnly = true;
    profile.refusedNameBytes = "\\:*?\"<>|\x01";
    FVDestinationNames names(profile);
    // Walk order: Docs, Docs/a, docs (refused; not entered), Other, Other/A (another folder's
    // entries never meet Docs' entries), Report.txt, REPORT.TXT, Ärger, ärger.
    EXPECT_EQ(names.refusal(1, "Docs"), "");
    EXPECT_EQ(names.refusal(2, "a"), "");
    EXPECT_NE(names.refusal(1, "docs").find("differs only in case from \"Docs\""), std::string::npos);
    EXPECT_EQ(names.refusal(1, "Other"), "");
    EXPECT_EQ(names.refusal(2, "A"), "");
    EXPECT_EQ(names.refusal(1, "Report.txt"), "");
    EXPECT_NE(names.refusal(1, "REPORT.TXT"), "");
    EXPECT_EQ(names.refusal(1, "\xc3\x84rger"), "");
    EXPECT_NE(names.refusal(1, "\xc3\xa4rger"), "");
    EXPECT_NE(names.refusal(1, "a:b").find("\":\""), std::string::npos);
    EXPECT_NE(names.refusal(1, "bell\x01").find("control character 0x01"), std::string::npos);
    EXPECT_NE(names.refusal(1, "caf\xe9").find("not UTF-8"), std::string::npos);
    EXPECT_NE(names.refusal(1, std::string(256, 'n')).find("256 bytes"), std::string::npos);

    FVDestinationNames exact(FVDestinationProfile{});
    EXPECT_EQ(exact.refusal(1, "Report.txt"), "");
    EXPECT_EQ(exact.refusal(1, "report.txt"), "");
    EXPECT_EQ(exact.refusal(1, "caf\xe9:"), "");
}
