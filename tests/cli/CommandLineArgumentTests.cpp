// The command line's grammar as a user meets it: refused forms give the usage on standard error
// and do nothing, every command's help goes to standard output, and the forms that have always
// worked still do.

#include "cli/DestinationFixture.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace ferrovane;
using namespace ferrovane::test;

TEST(CommandLineArguments, RefusedHelpedAndAcceptedForms) {
    TempDir dir;
    const std::string d = dir / "dest";
    makeDirs(d);
    writeFile(d + "/two words.txt", "");
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* out;  // what standard output holds; "" for nothing at all
        const char* err;  // the same for standard error
        bool usage = true;  // whether a refusal (status 2) shows the usage: not for a bad value
    };
    std::vector<Case> cases = {
        {{"--help"}, 0, "Usage: ferrovane [OPTIONS] [DESTINATION]", ""},
        {{"-h"}, 0, "Commands (each with its own --help)", ""},
        {{"--version"}, 0, "Ferrovane 0.1.0 (1)\n", ""},
        {{"search", "--help"}, 0, "Usage: ferrovane search", ""}, {{"runs", "--help"}, 0, "Usage: ferrovane runs", ""},
        {{"versions", "-h"}, 0, "Usage: ferrovane versions", ""},
        {{"restore", "--help"}, 0, "Usage: ferrovane restore", ""},
        {{"config", "--help"}, 0, "Usage: ferrovane config", ""},
        {{"config", d, "schedule", "--help"}, 0, "Usage: ferrovane config schedule", ""},

        {{"--bogus"}, 2, "", "--bogus"}, {{d, "-q", "-v"}, 2, "", "--quiet excludes --verbose"}, {{d, "-x"}, 2, "", "-x"},
        {{d, "--progress", "fancy"}, 2, "", "fancy not in"},
        {{d, "extra"}, 2, "", "extra"},
        {{"--add", d, "--dry-run"}, 2, "", "takes no destination"},
        {{d, "--", "-noUserNotifications"}, 2, "", "-noUserNotifications"},
        {{"--no-notifications"}, 2, "", "a destination is required"},
        {{"search", d}, 2, "", "WORD is required"},
        {{"search", d, "word", "--bogus"}, 2, "", "--bogus"},
        {{"versions", d}, 2, "", "PATH is required"}, {{"restore", d}, 2, "", "PATH or --all"},
        {{"restore", d, "--all", "--version", "x"}, 2, "", "takes no --version"},
        {{"runs", d, "--bogus"}, 2, "", "--bogus"},
        {{"config", d, "frobnicate"}, 2, "", "subcommand is required"},
        {{"config", d, "set", "maxThreads"}, 2, "", "VALUE is required"},
        // The historic forms reach the run, which finds no configuration here.
        {{d, "-noUserNotifications"}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{"--no-notifications", "--", d}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{d, "-n"}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{"search", d, "two", "WORDS"}, 0, "/two words.txt\n", ""},
        {{"search", d, "--", "-x-"}, 1, "", "no file name"},
        {{"search", d, " two"}, 1, "", "no file name"}, {{"search", d, "two  words"}, 1, "", "no file name"},
        {{"search", d, "tw"}, 2, "", "at least 3 bytes", false},
        {{"search", dir / "nowhere", "two"}, 2, "", "nowhere: No such file or directory", false},
        {{"runs", d}, 1, "", "not a backup destination"},
    };
    // The window's forms reach the window beside the executable, which needs a display.
    if (FERROVANE_HAS_WINDOW)
        for (std::vector<std::string> args : {std::vector<std::string>{}, std::vector<std::string>{"--add", d}})
            cases.push_back({args, 2, "", "no display"});
    for (const Case& c : cases) {
        std::vector<std::string> argv{FERROVANE_EXECUTABLE};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        auto r = runProcess(argv, {{"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt},
                                   {"QT_QPA_PLATFORM", std::nullopt}, {"FERROVANE_LOG_FILE", dir / "log"}});
        std::string shown;
        for (const std::string& a : c.args) shown += a + " ";
        EXPECT_EQ(r.exitStatus, c.status) << shown << "\n" << r.out << r.err;
        for (auto [text, expected] : {std::pair{r.out, c.out}, std::pair{r.err, c.err}}) {
            if (*expected) {
                EXPECT_NE(text.find(expected), std::string::npos) << shown << ": " << text;
            } else {
                EXPECT_EQ(text, "") << shown;
            }
        }
        EXPECT_EQ(c.status == 2 && c.usage, r.err.find("Usage: ferrovane") != std::string::npos) << shown << r.err;
        // Diagnostics in one form; a search without matches only says so.
        if (c.status != 0 && std::string(c.err) != "no file name") {
            EXPECT_EQ(r.err.rfind("ferrovane: error: ", 0), 0u) << shown << r.err;
        }
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(d), {}), 1) << "nothing was written";
}

// The window is an executable of its own: the command line starts the one beside it, else one on
// PATH, in its place and with the same arguments; without either it names the missing package.
TEST(CommandLineArguments, TheWindowIsStartedBesideTheCommandLineOrFromPath) {
    TempDir dir;
    const std::string beside = dir / "bin", onPath = dir / "path", commandLine = beside + "/ferrovane";
    makeDirs(beside);
    makeDirs(onPath);
    makeDirs(dir / "folder/ferrovane-gui");  // a folder of that name is no window
    std::filesystem::copy_file(FERROVANE_EXECUTABLE, commandLine);
    auto start = [&](std::vector<std::string> args) {
        args.insert(args.begin(), commandLine);
        return runProcess(args, {{"PATH", dir / "folder:" + onPath}, {"DISPLAY", ":0"}});
    };
    ProcessResult missing = start({});
    EXPECT_EQ(missing.exitStatus, 2);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "ferrovane: error: the window is not installed (package ferrovane-gui)\n");

    auto fakeWindow = [](const std::string& path) {
        writeFile(path, "#!/bin/sh\necho \"$0 $*\"\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    };
    fakeWindow(onPath + "/ferrovane-gui");
    ProcessResult fromPath = start({"--add", "/a b", "c"});
    EXPECT_EQ(fromPath.exitStatus, 0) << fromPath.err;
    EXPECT_EQ(fromPath.out, onPath + "/ferrovane-gui --add /a b c\n");
    fakeWindow(beside + "/ferrovane-gui");
    EXPECT_EQ(start({}).out, beside + "/ferrovane-gui \n");
}

namespace {

class DestinationArgument : public DestinationFixture {};

}  // namespace

// Every command takes the destination as the run does, an absolute path: a relative one is refused
// alike, with the path it may have meant, even where it names a real destination.
TEST_F(DestinationArgument, EveryCommandRefusesARelativeDestinationAlike) {
    writeFile(source + "/a.txt", "a");
    configure({{source, FVSourceMode::Backup}}, defaults());
    ASSERT_EQ(run().exitStatus, 0);
    const std::string settings = readFile(FVConfigurationFile::formattedPath(destination));
    const std::string a = source + "/a.txt";
    for (const std::string& relative : std::vector<std::string>{"dest", "./dest/", "../" + std::filesystem::path(dir.path()).filename().string() + "/dest"}) {
        const std::vector<std::vector<std::string>> commands = {
            {relative, "--no-notifications"}, {relative, "--dry-run"}, {"runs", relative},
            {"search", relative, "a.txt"},    {"versions", relative, a}, {"ls", relative, source},
            {"restore", relative, a, "--dry-run"}, {"restore", relative, a, "--at", "2000-01-01"},
            {"verify", relative},             {"config", relative, "show"}, {"config", relative, "add", "/x"},
            {"config", relative, "schedule"},
        };
        for (const auto& args : commands) {
            std::vector<std::string> argv{"/usr/bin/env", "-C", dir.path(), FERROVANE_EXECUTABLE};
            argv.insert(argv.end(), args.begin(), args.end());
            ProcessResult r = runProcess(argv, environment());
            std::string shown;
            for (const std::string& arg : args) shown += arg + " ";
            EXPECT_EQ(r.exitStatus, 2) << shown << r.out << r.err;
            EXPECT_EQ(r.out, "") << shown;
            EXPECT_EQ(r.err, "ferrovane: error: the destination must be an absolute path: " + relative +
                                 " (did you mean " + destination + "?)\n") << shown;
        }
    }
    EXPECT_EQ(readFile(FVConfigurationFile::formattedPath(destination)), settings);
}
