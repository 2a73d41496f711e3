#pragma once
// The run log's lines as journal entries when the process runs under systemd (a scheduled run's
// output goes to the journal): `journalctl -t ferrovane FERROVANE_DESTINATION=/media/x` shows the
// runs of one destination, and the priority tells errors from the rest.

#include <string>
#include <string_view>
#include <vector>

namespace ferrovane::FVJournalSink {

// Whether standard output or standard error is the journal stream that systemd named in
// JOURNAL_STREAM ("device:inode"); a process started from such a service's shell is not.
bool connected();

// The fields of one line's entry, each "NAME=value": MESSAGE (without a final line break),
// PRIORITY (3 for a line that reports an error, 6 for the rest), SYSLOG_IDENTIFIER, and the
// destination and the run's stamp where they are known.
std::vector<std::string> fields(std::string_view line, std::string_view destination, std::string_view runStamp);

// Sends one entry; false when the journal did not take it.
bool send(const std::vector<std::string>& fields);

}  // namespace ferrovane::FVJournalSink
