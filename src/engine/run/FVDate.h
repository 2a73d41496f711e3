#pragma once
// The dates of the log and of the archive folders' names.

#include <ctime>
#include <string>

namespace ferrovane::FVDate {

// The short local date and time that starts every log line, e.g. "2026-11-21 14:05:09".
std::string logTimeStamp();
// The local date and time formatted "%Y-%m-%d %H.%M.%S %z": the name of a run's archive folders.
std::string archiveStamp(std::time_t at);
double now();  // seconds since 1970, with fractions

}  // namespace ferrovane::FVDate
