#pragma once
// The exit statuses of every command, in one place so that the manual's table has one source.

namespace ferrovane::FVExitStatus {

// Everything asked for was done (a backup without errors, a restore, a search with matches).
constexpr int kOk = 0;
// The command ran but did not get everything: a restore with conflicts or problems, a search
// without matches, a verification that found differences.
constexpr int kIncomplete = 1;
// The arguments were wrong, or named something that is not there.
constexpr int kUsage = 2;
// A backup run that could not start or ended with errors; scripts have known it as -1.
constexpr int kRunFailed = 255;

// A command a signal ended: 128 + the signal's number, as shells report it (130 for Ctrl-C).
constexpr int interrupted(int signal) { return 128 + signal; }

}  // namespace ferrovane::FVExitStatus
