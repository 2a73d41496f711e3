#pragma once
// Learns what a destination file system can hold by trying it: in a folder of its own under a
// temporary name in the destination's root, a probe file gets a time with odd nanoseconds, a
// private mode, another owner (as the superuser), an extended attribute, a rename that refuses to
// replace, a hard and a symbolic link beside it and a few names with bytes that FAT-like file systems
// refuse; the folder goes again and the root gets its dates back. About fifty system calls.
// Without writing (a dry run), the mount table's type and a look-up of a known name in another
// case stand in for the trials.

#include "fs/FVDestinationProfile.h"

#include <string>

namespace ferrovane {

class FVDestinationProbe {
public:
    // temporaryName: a name in the root that only this program uses; a leftover of an earlier
    // probe under it is removed first.
    FVDestinationProbe(std::string rootPath, std::string temporaryName)
        : rootPath_(std::move(rootPath)), temporaryName_(std::move(temporaryName)) {}

    FVDestinationProfile probe();
    // knownName: an entry of the root whose name has letters (the configuration file).
    FVDestinationProfile probeWithoutWriting(const std::string& knownName);
    // What could not be tried, and why ("" when everything was); the profile then holds what
    // the mount table's type tells.
    const std::string& problem() const { return problem_; }
    // The errno behind problem(), 0 without one: a failing disk ends the run.
    int problemError() const { return problemError_; }

    // One line for the log: "exact times, case-sensitive, ..." or what the destination lacks.
    static std::string describe(const FVDestinationProfile& profile);
    // What is known of a file system by its type name alone.
    static FVDestinationProfile defaultsForType(const std::string& type);

private:
    std::string rootPath_;
    std::string temporaryName_;
    std::string problem_;
    int problemError_ = 0;
};

}  // namespace ferrovane
