#include "search/FVSearchCandidates.h"

namespace ferrovane::FVSearchCandidates {

namespace {

bool isPassedOver(std::string_view folderName) {
    return folderName.front() == '.' || folderName == "Library" || folderName == "System" ||
           folderName == "private";
}

}  // namespace

bool isCandidate(std::string_view name, Kind kind) {
    if (name.empty()) return false;
    switch (kind) {
    case Kind::Folder: return !isPassedOver(name);
    case Kind::FileOrLink: return name.front() != '.';
    case Kind::Other: return false;
    }
    return false;
}

bool entersFolder(std::string_view name) {
    return !name.empty() && !isPassedOver(name) && !name.ends_with(".app");
}

bool entersEveryFolderAbove(std::string_view path) {
    size_t start = path.starts_with('/') ? 1 : 0;
    for (size_t slash = path.find('/', start); slash != std::string_view::npos; slash = path.find('/', start)) {
        if (!entersFolder(path.substr(start, slash - start))) return false;
        start = slash + 1;
    }
    return true;
}

}  // namespace ferrovane::FVSearchCandidates
