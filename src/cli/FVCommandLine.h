#pragma once
// The command line's grammar: every form the program accepts, parsed with CLI11, each command
// with its own --help. Parsing and the commands need no display.

#include <optional>
#include <string>

namespace ferrovane::FVCommandLine {

// Runs the command the arguments name and returns its exit status; nothing when they ask for
// the window (no arguments, or --add PATH...).
std::optional<int> run(int argc, char** argv);

// Prints why and the usage on standard error; returns the usage exit status (2).
int usageError(const std::string& why);

}  // namespace ferrovane::FVCommandLine
