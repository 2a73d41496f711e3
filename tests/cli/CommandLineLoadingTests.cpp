// The command-line entry as a user meets it: the built executable, no display, a private
// session bus whose notification server records what it is told.

#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace ferrovane::test;

namespace {

const char* kCouldNotRead = "ferrovane: error: cannot read the configuration ";
const char* kFailedToRead = "ferrovane: error: cannot use ";

class CommandLineLoading : public ::testing::Test {
protected:
    void SetUp() override {
        if (!bus.ok()) GTEST_SKIP() << "dbus-daemon could not be started";
    }
    ProcessResult run(std::vector<std::string> args) {
        args.insert(args.begin(), FERROVANE_EXECUTABLE);
        return runProcess(args,
                          {{"DISPLAY", std::nullopt},
                           {"WAYLAND_DISPLAY", std::nullopt},
                           {"DBUS_SESSION_BUS_ADDRESS", bus.address()},
                           {"FERROVANE_LOG_FILE", dir / "Ferrovane.log"}},
                          30);
    }
    TempDir dir;
    PrivateBus bus{NOTIFICATION_RECORDER};
};

}  // namespace

TEST_F(CommandLineLoading, MissingConfigurationFailsAndNotifiesUnlessSwitchedOffOrWithoutABus) {
    std::string destination = dir / "Sicherung-B\xC3\xBC" "cher";
    makeDirs(destination);

    auto quiet = run({destination, "-noUserNotifications"});
    EXPECT_EQ(quiet.exitStatus, 255);
    const std::string message = "cannot read the configuration " + destination +
                                "/.ferrovane.conf (No such file or directory). Is the disk connected? To make " +
                                destination + " a destination: ferrovane config " + destination + " add SOURCE";
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.err, "ferrovane: error: " + message + "\n");
    EXPECT_NE(readFile(dir / "Ferrovane.log").find(": ERROR: " + message + "\n"), std::string::npos);
    EXPECT_TRUE(bus.recordedNotifications().empty());

    auto loud = run({destination + "/"});
    EXPECT_EQ(loud.exitStatus, 255);
    EXPECT_NE(loud.err.find(kCouldNotRead), std::string::npos);
    ASSERT_EQ(bus.recordedNotifications().size(), 1u);
    EXPECT_EQ(bus.recordedNotifications()[0].text,
              "Cannot sync to: Sicherung-B\xC3\xBC" "cher\tDestination not available or unconfigured!")
        << "the trailing slash is dropped and the name is shown as it is";

    // Without a bus: no notification, and no hang.
    auto nowhere = runProcess({FERROVANE_EXECUTABLE, "/nonexistent"},
                              {{"DISPLAY", std::nullopt},
                               {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir / "no-bus"},
                               {"FERROVANE_LOG_FILE", dir / "Ferrovane.log"}},
                              20);
    EXPECT_EQ(nowhere.exitStatus, 255);
    EXPECT_NE(nowhere.err.find(kCouldNotRead + std::string("/nonexistent/.ferrovane.conf (/nonexistent: No such")),
              std::string::npos)
        << nowhere.err;
}

TEST_F(CommandLineLoading, UnreadableOrMalformedConfigurationsAreRefusedAndLeftAlone) {
    struct Case {
        const char* name;
        std::string content;  // empty: the configuration is a folder or a FIFO (never waited on)
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"folder", "", "ferrovane: error: the configuration "},
        {"fifo", "", kFailedToRead},
        // Which contents are no configuration is the configuration file's own test.
        {"garbage", "this is not a property list", kFailedToRead},
    };
    for (const Case& c : cases) {
        std::string destination = dir / c.name;
        makeDirs(destination);
        if (c.content.empty() && c.expected == kFailedToRead) mkfifo((destination + "/.ferrovane.conf").c_str(), 0644);
        else if (c.content.empty()) makeDirs(destination + "/.ferrovane.conf");
        else writeFile(destination + "/.ferrovane.conf", c.content);
        auto result = run({destination});
        EXPECT_LT(result.seconds, 10) << c.name;
        EXPECT_EQ(result.exitStatus, 255) << c.name;
        EXPECT_EQ(result.out, "") << c.name;
        EXPECT_EQ(result.err.rfind(c.expected + destination + "/.ferrovane.conf", 0), 0u) << c.name << ": " << result.err;
        if (!c.content.empty()) {
            EXPECT_EQ(readFile(destination + "/.ferrovane.conf"), c.content) << c.name << " was rewritten";
        }
    }
    // Only a missing or unreadable configuration is announced on the desktop.
    EXPECT_EQ(bus.recordedNotifications().size(), 1u);
}

TEST_F(CommandLineLoading, ARunAnnouncesItsStartAndItsOutcomeInOneNotification) {
    std::string source = dir / "Documents";
    std::string destination = dir / "Backup";
    makeDirs(source);
    makeDirs(destination);
    writeFile(source + "/a.txt", "a");
    writeFile(destination + "/.ferrovane.conf",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>settings</key><dict>"
              "<key>syncMode</key><integer>1</integer><key>maxThreads</key><integer>2</integer>"
              "<key>moveDeletedFiles</key><integer>0</integer></dict>"
              "<key>sources</key><array><dict><key>sourcePath</key><string>" + source +
              "</string><key>enabled</key><integer>1</integer>"
              "<key>totalFilesCount</key><integer>2</integer></dict></array></dict></plist>");
    auto result = run({destination});
    ASSERT_EQ(result.exitStatus, 0) << result.out << result.err;
    auto n = bus.recordedNotifications();
    ASSERT_EQ(n.size(), 2u);
    EXPECT_EQ(n[0].text, "Backing up to: Backup\t");
    // Both entries (the folder and its file) were copied out of the two counted.
    EXPECT_EQ(n[1].text.rfind("Backup finished: Backup\tChanged: 100.0% Duration: ", 0), 0u) << n[1].text;
    EXPECT_EQ(n[0].replacesId, 0u);
    EXPECT_EQ(n[1].replacesId, n[0].id) << "the outcome takes the place of the start";
    for (const RecordedNotification& each : n) {
        EXPECT_EQ(each.desktopEntry, "ferrovane");
        EXPECT_EQ(each.urgency, 1);
    }

    // An emptied source looks like a volume that is not mounted: the run keeps the mirror and
    // ends with errors, which stay on screen.
    ASSERT_EQ(unlink((source + "/a.txt").c_str()), 0);
    EXPECT_EQ(run({destination}).exitStatus, 255);
    n = bus.recordedNotifications();
    ASSERT_EQ(n.size(), 4u);
    EXPECT_EQ(n[2].replacesId, 0u) << "a new run starts a notification of its own";
    EXPECT_EQ(n[3].replacesId, n[2].id);
    EXPECT_EQ(n[3].urgency, 2);
    EXPECT_NE(n[3].text.find("1 error occurred, please check the log."), std::string::npos) << n[3].text;
}
