// "ferrovane search" as a user meets it: the built executable on destinations laid out as the
// backup runs file their archives.

#include "cli/DestinationFixture.h"
#include "support/DatedFile.h"
#include "support/ProcessRunner.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class SearchCommand : public ::testing::Test {
protected:
    ProcessResult search(std::vector<std::string> args, std::vector<std::string> prefix = {}) {
        args.insert(args.begin(), {FERROVANE_EXECUTABLE, "search"});
        args.insert(args.begin(), prefix.begin(), prefix.end());
        return runProcess(args, {{"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt}, {"TZ", "UTC"}});
    }
    std::string file(const std::string& relative, const char* utcTime) {
        return writeDatedFile(dest + "/" + relative, relative, utcTime);
    }
    TempDir dir;
    std::string dest = dir / "dest";
};

}  // namespace

// Names are printed so that they cannot drive the terminal, and folders the user cannot read are
// passed over without failing the search.
TEST_F(SearchCommand, EscapesNamesThatWouldDriveTheTerminalAndPassesOverUnreadableFolders) {
    for (const char* name : {"evil\x1B]0;owned\x07 report", "latin1 r\xE9port report", "back\\slash report",
                             "open/report.txt", "closed/report.txt", "closed/inner/report.txt"})
        file(name, "2021-07-05 10:00");
    ASSERT_EQ(chmod((dest + "/closed").c_str(), 0), 0);
    std::vector<std::string> asUser;
    if (geteuid() == 0) {  // the superuser reads everything: search as nobody
        if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv is needed to drop root";
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
        asUser = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }

    auto result = search({dest, "report"}, asUser);

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
