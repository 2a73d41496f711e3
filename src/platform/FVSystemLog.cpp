#include "platform/FVSystemLog.h"

#include <syslog.h>
#include <unistd.h>

#include <string>

namespace ferrovane::FVSystemLog {

void write(std::string_view text) {
    std::string line(text);
    syslog(LOG_ERR, "%s", line.c_str());
    line.push_back('\n');
    // One write call, so that lines from several threads stay whole.
    ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
}

void warning(std::string_view text) {
    std::string line(text);
    syslog(LOG_WARNING, "%s", line.c_str());
}

void error(std::string_view className, std::string_view message) {
    std::string text = "ERROR: ";
    text.append(className).append(": ").append(message);
    write(text);
}

}  // namespace ferrovane::FVSystemLog
