#pragma once
// "ferrovane check-overdue [--json] [--no-notifications]": every destination of this user's
// scheduled jobs, whether its backups are overdue, and a desktop notification for each overdue
// one (at most one a day). What the timer installed beside the jobs runs after login and daily.

namespace ferrovane::FVCheckOverdueCommand {

// Exit status 0, overdue or not: the output says which.
int main(bool json, bool notify);

}  // namespace ferrovane::FVCheckOverdueCommand
