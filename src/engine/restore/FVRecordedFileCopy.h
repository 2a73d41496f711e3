#pragma once
// Copies the bytes of a recorded file out of the destination into an open file, hashing them as
// they pass: the first place whose bytes match the recorded digest wins; a place that does not
// match is undone (the file emptied again) and the next one tried. Places are reached from the
// destination's root without following a link.

#include "fs/FVConfinedDirectory.h"
#include "fs/FVFileDescriptor.h"
#include "manifest/FVContentHash.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVRecordedFileCopy {
public:
    enum class Outcome {
        Copied,     // the bytes are in out, matching the digest (or the only place, without one)
        NotHere,     // no place holds them: none exists or none matches; out is empty
        Unreadable,  // none that could be read holds them, and some could not be (problem says why)
        Cancelled,  // out holds part of them
        Failed,     // writing failed (problem says why); out holds part of them
    };

    // buffer holds bufferSize bytes; cancelled is asked between chunks.
    FVRecordedFileCopy(const FVConfinedDirectory& destination, char* buffer, size_t bufferSize,
                       std::function<bool()> cancelled)
        : destination_(destination), buffer_(buffer), bufferSize_(bufferSize), cancelled_(std::move(cancelled)) {}

    // places: paths below the destination root (no leading "/"). digest: nothing for a file whose
    // run could not read it, whose first existing place is then taken as it is; with a digest, a
    // place of another size than the recorded one is passed over unread. *bytes: what was copied
    // from the place that won; *mismatches: places that held other bytes.
    Outcome copy(const std::vector<std::string>& places, const std::optional<FVContentHash>& digest, uint64_t size,
                 int out, uint64_t* bytes, unsigned* mismatches, std::string* problem);

private:
    enum class Read { Matched, Differs, Missing, Unreadable, Cancelled, WriteFailed };
    Read copyFrom(const std::string& place, const std::optional<FVContentHash>& digest, uint64_t size, int out,
                  uint64_t* bytes, std::string* problem);
    FVFd openPlace(const std::string& place);

    const FVConfinedDirectory& destination_;
    char* buffer_;
    size_t bufferSize_;
    std::function<bool()> cancelled_;
    // The folder of the last place opened: the files of a folder follow one another.
    std::string folderPath_;
    FVFd folder_;
};

}  // namespace ferrovane
