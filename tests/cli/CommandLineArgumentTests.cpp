// The command line's grammar as a user meets it: refused forms give the usage on standard error
// and do nothing, every command's help goes to standard output, and the forms that have always
// worked still do.

#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>

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
    };
    const char* noWindow = FERROVANE_HAS_WINDOW ? "no display" : "this build has no window";
    const std::vector<Case> cases = {
        {{"--help"}, 0, "Usage: ferrovane [OPTIONS] [DESTINATION]", ""},
        {{"-h"}, 0, "Commands (each with its own --help)", ""},
        {{"--version"}, 0, "Ferrovane 0.1.0 (1)\n", ""},
        {{"search", "--help"}, 0, "Usage: ferrovane search", ""}, {{"runs", "--help"}, 0, "Usage: ferrovane runs", ""},
        {{"versions", "-h"}, 0, "Usage: ferrovane versions", ""},
        {{"restore", "--help"}, 0, "Usage: ferrovane restore", ""},
        {{"config", "--help"}, 0, "Usage: ferrovane config", ""},
        {{"config", d, "schedule", "--help"}, 0, "Usage: ferrovane config schedule", ""},

        {{"--bogus"}, 2, "", "--bogus"}, {{"-v"}, 2, "", "-v"}, {{d, "-x"}, 2, "", "-x"},
        {{d, "extra"}, 2, "", "extra"},
        {{"relative/dest"}, 2, "", "must be an absolute path"},
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
        // The window's forms reach the window, which needs a display (and a build that has it).
        {{}, 2, "", noWindow}, {{"--add", d}, 2, "", noWindow},

        // The historic forms reach the run, which finds no configuration here.
        {{d, "-noUserNotifications"}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{"--no-notifications", "--", d}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{d, "-n"}, 255, "", "ferrovane: error: cannot read the configuration"},
        {{"search", d, "two", "WORDS"}, 0, "/two words.txt\n", ""},
        {{"search", d, "--", "-x-"}, 1, "", "no file name"},
        {{"runs", d}, 1, "", "not a backup destination"},
    };
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
        EXPECT_TRUE(c.status != 2 || r.err.find("Usage: ferrovane") != std::string::npos) << shown << r.err;
        // Diagnostics in one form; a search without matches only says so.
        if (c.status != 0 && std::string(c.err) != "no file name")
            EXPECT_EQ(r.err.rfind("ferrovane: error: ", 0), 0u) << shown << r.err;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(d), {}), 1) << "nothing was written";
}
