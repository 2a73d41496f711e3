#include "platform/FVJournalSink.h"

#include "fs/FVFileStatus.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace ferrovane::FVJournalSink {

bool connected() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream || !*stream) return false;
    const std::string value(stream);
    const size_t colon = value.find(':');
    if (colon == std::string::npos) return false;
    const std::string device = value.substr(0, colon), inode = value.substr(colon + 1);
    for (int fd : {STDERR_FILENO, STDOUT_FILENO}) {
        struct stat st {};
        if (FVFileStatus::fstat(fd, &st) == 0 && std::to_string(st.st_dev) == device && std::to_string(st.st_ino) == inode)
            return true;
    }
    return false;
}

std::vector<std::string> fields(std::string_view line, std::string_view destination, std::string_view runStamp) {
    while (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    const bool error = line.starts_with("ERROR");
    std::vector<std::string> out = {"MESSAGE=" + std::string(line),
                                    "PRIORITY=" + std::to_string(error ? LOG_ERR : LOG_INFO),
                                    "SYSLOG_IDENTIFIER=ferrovane"};
    if (!destination.empty()) out.push_back("FERROVANE_DESTINATION=" + std::string(destination));
    if (!runStamp.empty()) out.push_back("FERROVANE_RUN_STAMP=" + std::string(runStamp));
    return out;
}

bool send(const std::vector<std::string>& fields) {
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (const std::string& field : fields) parts.push_back({const_cast<char*>(field.data()), field.size()});
    return sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) >= 0;
}

}  // namespace ferrovane::FVJournalSink
