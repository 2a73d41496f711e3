#pragma once
// Small helpers on dates and numbers used by the log and by size texts, and the file-manager
// helpers of the change analysis and the copy engine.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <ctime>

#include <sys/types.h>

namespace ferrovane {

namespace FVDate {
// The short local date and time that starts every log line, e.g. "2026-11-21 14:05:09".
std::string logTimeStamp();
// The local date and time formatted "%Y-%m-%d %H.%M.%S %z": the name of a run's archive folders.
std::string archiveStamp(std::time_t at);
double now();  // seconds since 1970, with fractions
}  // namespace FVDate

namespace FVNumber {
// Decimal size text: "1 byte", "999 bytes", "1.0 KB", "1.5 MB", "2000.0 GB".
std::string formattedDiskSizeString(double bytes);
// A count with its noun: "1 file", "2 files", "0 files" (many defaults to one with an "s").
std::string counted(uint64_t count, std::string_view one, std::string_view many = {});
}  // namespace FVNumber

// What can be said of an item's existence. Only Missing is a definite answer that the item is
// gone; a lookup that fails for any other reason (no permission, an I/O error) is Unknown.
enum class FVExistence { Exists, Missing, Unknown };

namespace FVFileManager {
// Whether the folder holds at least one entry that is neither hidden nor desktop-database
// housekeeping. A folder that cannot be listed holds none.
bool pathContainsUserFilePaths(const std::string& path);
// Whether the folder holds any entry at all; nothing when it cannot be listed.
std::optional<bool> folderHasEntries(const std::string& path);
// The inode immutable flag. Where the file system has no flags or the process may not change
// them, nothing happens. Symbolic links and special files have no flags and are left alone.
void lockFile(const std::string& path);
// Clears every flag that refuses a rename, a removal or a write (immutable and append-only);
// returns whether the item had one.
bool unlockFile(const std::string& path);
// The same for the entry name inside the folder dirFd (never following a symbolic link); an
// empty name unlocks dirFd itself, which must then be a real (not O_PATH) descriptor.
bool unlockFileAt(int dirFd, const std::string& name);
// The item and everything below it, without following symbolic links.
void unlockRecursively(const std::string& path);
void unlockRecursivelyAt(int dirFd, const std::string& name);
// Every extended attribute of the item (not following a final link) that a copy carries, as
// "name:<hex value>\n", in the order the file system lists them. Comparing exactly what the copy
// carries keeps an item that cannot carry an attribute from being copied on every run.
std::string xattrNameAndDataStringForFileAtPath(const std::string& path, bool includeACL = true);
bool xattrIdentialforFileAtPath(const std::string& path, const std::string& otherPath, bool includeACL = true);
// type: the item's S_IFMT bits where it exists.
FVExistence existenceAtPath(const std::string& path, int* error = nullptr, mode_t* type = nullptr);
// Whether anything (a dangling link too) is at the path.
bool pathExists(const std::string& path);
}  // namespace FVFileManager

}  // namespace ferrovane
