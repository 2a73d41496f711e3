#include "engine/FVAdditions.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace ferrovane {

namespace {

std::string formatLocalNow(const char* format) {
    std::time_t t = std::time(nullptr);
    std::tm local {};
    localtime_r(&t, &local);
    char buffer[128];
    size_t n = std::strftime(buffer, sizeof buffer, format, &local);
    return std::string(buffer, n);
}

}  // namespace

namespace FVDate {

std::string logTimeStamp() { return formatLocalNow("%Y-%m-%d %H:%M:%S"); }
std::string formattedTimeStamp() { return formatLocalNow("%B %-d, %Y at %H:%M:%S %Z"); }
std::string archiveStamp() { return formatLocalNow("%Y-%m-%d %H.%M.%S %z"); }

double now() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace FVDate

namespace FVNumber {

std::string formattedDiskSizeString(double v) {
    if (v < 1000) return fmt::format("{:.0f} bytes", v);
    if (v / 1000 < 1000) return fmt::format("{:.1f} KB", v * 0.001);
    if (v / 1000000 < 1000) return fmt::format("{:.1f} MB", v * 0.000001);
    return fmt::format("{:.1f} GB", v * 0.000000001);
}

}  // namespace FVNumber

}  // namespace ferrovane
