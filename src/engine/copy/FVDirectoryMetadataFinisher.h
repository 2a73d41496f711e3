#pragma once
// Folder metadata waits until every file of the session is copied: writing a file into a folder
// changes the folder's modification time, and a read-only or immutable folder refuses new files.
// This keeps the folders met and applies their metadata at the end.

#include "engine/copy/FVDirectoryStore.h"

#include <mutex>
#include <string>

namespace ferrovane {

class FVCopyContext;

class FVDirectoryMetadataFinisher {
public:
    explicit FVDirectoryMetadataFinisher(FVCopyContext& context) : context_(context) {}

    void add(const std::string& source, const std::string& destination);
    // Owner, mode, attributes, times and inode flags of every folder added; then forgets them.
    void finish();

private:
    FVCopyContext& context_;
    std::mutex mutex_;
    FVDirectoryStore store_;
};

}  // namespace ferrovane
