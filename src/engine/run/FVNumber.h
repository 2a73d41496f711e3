#pragma once
// The texts of sizes and counts in the log and the summaries.

#include <cstdint>
#include <string>
#include <string_view>

namespace ferrovane::FVNumber {

// Decimal size text: "1 byte", "999 bytes", "1.0 KB", "1.5 MB", "2000.0 GB".
std::string formattedDiskSizeString(double bytes);
// A count with its noun: "1 file", "2 files", "0 files" (many defaults to one with an "s").
std::string counted(uint64_t count, std::string_view one, std::string_view many = {});

}  // namespace ferrovane::FVNumber
