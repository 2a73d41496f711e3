#include "engine/run/FVNumber.h"

#include <fmt/format.h>

namespace ferrovane::FVNumber {

std::string formattedDiskSizeString(double v) {
    if (v < 1000) return v == 1 ? "1 byte" : fmt::format("{:.0f} bytes", v);
    if (v / 1000 < 1000) return fmt::format("{:.1f} KB", v * 0.001);
    if (v / 1000000 < 1000) return fmt::format("{:.1f} MB", v * 0.000001);
    return fmt::format("{:.1f} GB", v * 0.000000001);
}

std::string counted(uint64_t count, std::string_view one, std::string_view many) {
    if (count == 1) return fmt::format("1 {}", one);
    return many.empty() ? fmt::format("{} {}s", count, one) : fmt::format("{} {}", count, many);
}

}  // namespace ferrovane::FVNumber
