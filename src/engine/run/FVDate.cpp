#include "engine/run/FVDate.h"

#include <chrono>

namespace ferrovane::FVDate {

namespace {

std::string formatLocal(const char* format, std::time_t t) {
    std::tm local {};
    localtime_r(&t, &local);
    char buffer[128];
    size_t n = std::strftime(buffer, sizeof buffer, format, &local);
    return std::string(buffer, n);
}

}  // namespace

std::string logTimeStamp() { return formatLocal("%Y-%m-%d %H:%M:%S", std::time(nullptr)); }
std::string archiveStamp(std::time_t at) { return formatLocal("%Y-%m-%d %H.%M.%S %z", at); }

double now() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace ferrovane::FVDate
