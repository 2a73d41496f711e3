// "ferrovane verify": one line per finding, and an exit status a script can act on.

#include "cli/DestinationFixture.h"
#include "support/RecordedRun.h"

namespace ferrovane::test {
namespace {

using VerifyCommandTest = DestinationFixture;

TEST_F(VerifyCommandTest, ExitStatusSaysIntactDiffersOrCannotVerify) {
    ProcessResult unrecorded = ferrovane({"verify", destination});
    EXPECT_EQ(unrecorded.exitStatus, 255);
    EXPECT_NE(unrecorded.err.find("no record of a complete run"), std::string::npos) << unrecorded.err;

    makeDirs(destination + "/src");
    writeFile(destination + "/src/notes.txt", "kept safe");
    recordRun(destination, "2026-11-20 10.00.00 +0000", {source});
    ProcessResult intact = ferrovane({"verify", destination});
    EXPECT_EQ(intact.exitStatus, 0) << intact.out << intact.err;
    EXPECT_NE(intact.out.find("1 files (9 bytes) read against the run 2026-11-20 10.00.00 +0000: intact"),
              std::string::npos) << intact.out;

    writeFile(destination + "/src/notes.txt", "kept SAFE");
    ProcessResult damaged = ferrovane({"verify", destination});
    EXPECT_EQ(damaged.exitStatus, 1);
    EXPECT_EQ(damaged.out.rfind("damaged: " + destination + "/src/notes.txt (read ", 0), 0u) << damaged.out;
    ProcessResult json = ferrovane({"verify", destination, "--json"});
    EXPECT_EQ(json.exitStatus, 1);
    EXPECT_NE(json.out.find("{\"kind\": \"damaged\", \"path\": \"" + destination + "/src/notes.txt\""),
              std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"status\": \"differs\""), std::string::npos) << json.out;

    EXPECT_EQ(ferrovane({"verify", destination, "--at", "yesterday-ish"}).exitStatus, 255);
    EXPECT_EQ(ferrovane({"verify"}).exitStatus, 2);
}

}  // namespace
}  // namespace ferrovane::test
