// Which hook commands may run: only the very command this user recorded for the destination's
// identity, in a file no one else can change.

#include "engine/config/FVHookApprovals.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace ferrovane;
using namespace ferrovane::test;

TEST(HookApprovals, OnlyTheRecordedCommandInAPrivateFileIsApproved) {
    TempDir dir;
    const std::string uuid = "0F1E2D3C-4B5A-4978-8695-A4B3C2D1E0F9";
    FVHookApprovals approvals(dir / "hooks");
    EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::Before, "true"));
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::Before, "true"));
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::After, "echo done"));
    EXPECT_TRUE(approvals.isApproved(uuid, FVHookKind::Before, "true"));
    EXPECT_TRUE(approvals.isApproved(uuid, FVHookKind::After, "echo done"));
    EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::After, "true"));
    EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::Before, "true "));
    EXPECT_FALSE(approvals.isApproved("11111111-2222-4333-8444-555555555555", FVHookKind::Before, "true"));
    EXPECT_FALSE(approvals.approve("../elsewhere", FVHookKind::Before, "true"));

    // A file that others may change approves nothing.
    const std::string file = dir / ("hooks/" + uuid + ".hooks");
    ASSERT_EQ(chmod(file.c_str(), 0620), 0);
    EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::Before, "true"));
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    if (getuid() == 0) {
        ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
        EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::Before, "true"));
        ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    }
    EXPECT_TRUE(approvals.isApproved(uuid, FVHookKind::Before, "true"));

    // Forgetting one keeps the other; forgetting both leaves no file.
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::Before, ""));
    EXPECT_FALSE(approvals.isApproved(uuid, FVHookKind::Before, "true"));
    EXPECT_TRUE(approvals.isApproved(uuid, FVHookKind::After, "echo done"));
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::After, ""));
    EXPECT_FALSE(exists(file));
}
