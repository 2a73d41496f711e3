#pragma once
// What one destination file system can hold, learned by trying it inside the destination and from
// the mount table, never assumed from its type name. The change decision, the copy, the archive
// moves and the layout check read it; a run probes once before it touches anything.

#include <cstddef>
#include <cstdint>
#include <string>

namespace ferrovane {

struct FVDestinationProfile {
    // The mount's type from the mount table ("ext4", "fuse.exfat", ...), for the log.
    std::string fileSystemType;
    // Served over a network (NFS, SMB, sshfs, WebDAV, 9p ...): every request waits for a round trip,
    // so copies go faster with many of them in flight.
    bool remote = false;
    // The finest modification time the file system keeps: 1 ns on ext4, btrfs, xfs and tmpfs,
    // 100 ns on NTFS, 1 s on exFAT, 2 s on FAT.
    int64_t timeGranularityNs = 1;
    // "Report.txt" and "report.txt" name one file.
    bool caseInsensitive = false;
    // renameat2(RENAME_NOREPLACE) works; where it does not, a move checks the target first under
    // the destination lock.
    bool renameNoReplace = true;
    // A renamed file keeps its modification time (fusefat sets it to the time of the rename).
    bool renameKeepsTimes = true;
    bool keepsOwners = true;
    bool keepsModes = true;
    bool symbolicLinks = true;
    // A symbolic link takes the time it is given (utimensat without following it). Where it does
    // not, a link's date tells nothing, and nothing is set on a link at all: sshfs's server
    // follows the link and would give its target, wherever it lies, the link's owner and times.
    bool linkTimes = true;
    bool extendedAttributes = true;
    // A second name made with link() is the same file (one inode, two links). sshfs makes the link
    // on the server but shows each name as a file of its own; FAT and exFAT refuse it.
    bool hardLinks = true;
    size_t maxNameLength = 255;
    // Bytes the file system refuses in a name (FAT and exFAT refuse "\\:*?\"<>|" and controls).
    std::string refusedNameBytes;
    // Names must be valid UTF-8 (exFAT, NTFS and FAT store them as UTF-16).
    bool utf8NamesOnly = false;
};

}  // namespace ferrovane
