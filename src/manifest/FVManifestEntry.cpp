#include "manifest/FVManifestEntry.h"

namespace ferrovane {

const char* manifestEntryTypeName(FVManifestEntryType type) {
    switch (type) {
        case FVManifestEntryType::File: return "file";
        case FVManifestEntryType::Folder: return "folder";
        case FVManifestEntryType::Link: return "link";
        case FVManifestEntryType::Other: return "other";
    }
    return "other";
}

const char* manifestOutcomeName(FVManifestOutcome outcome) {
    switch (outcome) {
        case FVManifestOutcome::Complete: return "complete";
        case FVManifestOutcome::Stopped: return "stopped";
        case FVManifestOutcome::Failed: return "failed";
    }
    return "failed";
}

bool isManifestPathAtOrBelow(std::string_view path, std::string_view folder) {
    return path.starts_with(folder) && (folder.empty() || path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace ferrovane
