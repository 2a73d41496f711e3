// "ferrovane search" as a user meets it: the built executable on a destination whose names would
// drive a terminal and whose folders are not all readable (its exit statuses are in the command
// line's table).

#include "support/ProcessRunner.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace ferrovane::test;

TEST(SearchCommand, EscapesNamesThatWouldDriveTheTerminalAndPassesOverUnreadableFolders) {
    TempDir dir;
    const std::string dest = dir / "dest";
    buildTree(dest, {{"evil\x1B]0;owned\x07 report", ""}, {"latin1 r\xE9port report", ""}, {"back\\slash report", ""},
                     {"open/report.txt", ""}, {"closed/report.txt", ""}, {"closed/inner/report.txt", ""}});
    ASSERT_TRUE(setModificationTime(dest + "/open/report.txt", 1'625'479'200));  // 2021-07-05 10:00 UTC
    ASSERT_EQ(chmod((dest + "/closed").c_str(), 0), 0);
    std::vector<std::string> argv = {FERROVANE_EXECUTABLE, "search", dest, "report"};
    if (geteuid() == 0) {  // the superuser reads everything: search as nobody
        if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv is needed to drop root";
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
        argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }

    auto result = runProcess(argv, {{"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt}, {"TZ", "UTC"}});

    chmod((dest + "/closed").c_str(), 0755);
    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("/evil\\x1b]0;owned\\x07 report\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("/latin1 r\\xe9port report\n"), std::string::npos);
    EXPECT_NE(result.out.find("/back\\\\slash report\n"), std::string::npos);
    for (char c : result.out) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << int(c);
    EXPECT_EQ(result.out.find('\xE9'), std::string::npos);
    EXPECT_NE(result.out.find(dest + "/open/report.txt\n  current                     2021-07-05 10:00  " + dest +
                              "/open/report.txt\n"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("closed"), std::string::npos) << result.out;
}
