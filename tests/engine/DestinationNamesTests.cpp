// Which source names a destination can hold, walk order by walk order.

#include "engine/config/FVDestinationNames.h"
#include "fs/FVFileDescriptor.h"
#include "support/TempDir.h"

#include <fcntl.h>

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

TEST(DestinationNames, RefusesLaterCaseTwinsInOneFolderOnlyAndNamesTheBytesAFileSystemRefuses) {
    FVDestinationProfile profile;
    profile.fileSystemType = "exfat";
    profile.caseInsensitive = true;
    profile.utf8NamesOnly = true;
    profile.refusedNameBytes = "\\:*?\"<>|\x01";
    FVDestinationNames names(profile);
    // The first of two twins is read back from their folder.
    TempDir dir;
    for (const char* name : {"Docs", "docs", "Other", "Report.txt", "REPORT.TXT", "\xc3\x84rger", "\xc3\xa4rger"})
        writeFile(dir / name, "");
    FVFd folder(open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int top = folder.get();
    // Walk order: Docs, Docs/a, docs (refused; not entered), Other, Other/A (another folder's
    // entries never meet Docs' entries), Report.txt, REPORT.TXT, Ärger, ärger.
    EXPECT_EQ(names.refusal(1, "Docs", top), "");
    EXPECT_EQ(names.refusal(2, "a", -1), "");
    EXPECT_NE(names.refusal(1, "docs", top).find("differs only in case from \"Docs\""), std::string::npos);
    EXPECT_EQ(names.refusal(1, "Other", top), "");
    EXPECT_EQ(names.refusal(2, "A", -1), "");
    EXPECT_EQ(names.refusal(1, "Report.txt", top), "");
    EXPECT_NE(names.refusal(1, "REPORT.TXT", top), "");
    EXPECT_EQ(names.refusal(1, "\xc3\x84rger", top), "");
    EXPECT_NE(names.refusal(1, "\xc3\xa4rger", top), "");
    EXPECT_NE(names.refusal(1, "a:b", top).find("\":\""), std::string::npos);
    EXPECT_NE(names.refusal(1, "bell\x01", top).find("control character 0x01"), std::string::npos);
    EXPECT_NE(names.refusal(1, "caf\xe9", top).find("not UTF-8"), std::string::npos);
    EXPECT_NE(names.refusal(1, std::string(256, 'n'), top).find("256 bytes"), std::string::npos);

    FVDestinationNames exact(FVDestinationProfile{});
    EXPECT_EQ(exact.refusal(1, "Report.txt", -1), "");
    EXPECT_EQ(exact.refusal(1, "report.txt", -1), "");
    EXPECT_EQ(exact.refusal(1, "caf\xe9:", -1), "");
}
