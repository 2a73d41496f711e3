#include "platform/FVSystemLog.h"

#include <syslog.h>

#include <string>

namespace ferrovane::FVSystemLog {

void warning(std::string_view text) {
    std::string line(text);
    syslog(LOG_WARNING, "%s", line.c_str());
}

void error(std::string_view className, std::string_view message) {
    std::string text = "ERROR: ";
    text.append(className).append(": ").append(message);
    syslog(LOG_ERR, "%s", text.c_str());
}

}  // namespace ferrovane::FVSystemLog
