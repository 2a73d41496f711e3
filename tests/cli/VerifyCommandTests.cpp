// "ferrovane verify" after real runs: one line per finding, and an exit status a script can act on.

#include "cli/DestinationFixture.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace ferrovane::test {
namespace {

using VerifyCommandTest = DestinationFixture;

TEST_F(VerifyCommandTest, ExitStatusSaysIntactDiffersOrCannotVerify) {
    writeFile(source + "/notes.txt", "kept safe");
    configure({{source, FVSourceMode::Backup}}, defaults());
    ProcessResult unrecorded = ferrovane({"verify", destination});
    EXPECT_EQ(unrecorded.exitStatus, 255);
    EXPECT_NE(unrecorded.err.find("no record of a complete run"), std::string::npos) << unrecorded.err;

    ASSERT_EQ(run().exitStatus, 0);
    ProcessResult intact = ferrovane({"verify", destination});
    EXPECT_EQ(intact.exitStatus, 0) << intact.out << intact.err;
    EXPECT_NE(intact.out.find("Verify: 1 file (9 bytes) read against the run "), std::string::npos) << intact.out;
    EXPECT_NE(intact.out.find(": intact\n"), std::string::npos) << intact.out;

    // An edit inside the destination that keeps size and time: no run notices it, verify does.
    const std::string mirrored = destination + "/src/notes.txt";
    struct stat before {};
    ASSERT_EQ(stat(mirrored.c_str(), &before), 0);
    writeFile(mirrored, "kept SAFE");
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, mirrored.c_str(), times, 0), 0);
    ASSERT_EQ(run().exitStatus, 0);
    ProcessResult damaged = ferrovane({"verify", destination});
    EXPECT_EQ(damaged.exitStatus, 1);
    EXPECT_EQ(damaged.out.rfind("damaged: " + mirrored + " (read ", 0), 0u) << damaged.out;
    ProcessResult json = ferrovane({"verify", destination, "--json"});
    EXPECT_EQ(json.exitStatus, 1);
    EXPECT_NE(json.out.find("{\"kind\": \"damaged\", \"path\": \"" + mirrored + "\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"status\": \"differs\""), std::string::npos) << json.out;

    EXPECT_EQ(ferrovane({"verify", destination, "--at", "2001-01-01"}).exitStatus, 255);
    EXPECT_EQ(ferrovane({"verify"}).exitStatus, 2);
}

}  // namespace
}  // namespace ferrovane::test
