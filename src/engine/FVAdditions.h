#pragma once
// Small helpers on dates and numbers used by the log and by size texts.

#include <cstdint>
#include <string>

namespace ferrovane {

namespace FVDate {
// The short local date and time that starts every log line, e.g. "2026-11-21 14:05:09".
std::string logTimeStamp();
// The long local date and time, e.g. "November 21, 2026 at 14:05:09 CET".
std::string formattedTimeStamp();
// The local date and time formatted "%Y-%m-%d %H.%M.%S %z": the name of a run's archive folders.
std::string archiveStamp();
double now();  // seconds since 1970, with fractions
}  // namespace FVDate

namespace FVNumber {
// Decimal size text: "999 bytes", "1.0 KB", "1.5 MB", "2000.0 GB".
std::string formattedDiskSizeString(double bytes);
}  // namespace FVNumber

}  // namespace ferrovane
