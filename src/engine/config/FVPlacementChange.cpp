#include "engine/config/FVPlacementChange.h"

#include "engine/config/FVMirrorLayout.h"
#include "fs/FVFileStatus.h"
#include "fs/FVText.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <cerrno>

namespace ferrovane {

namespace {

// A word the shell reads back as exactly these bytes.
std::string shellWord(const std::string& bytes) {
    bool control = false;
    for (unsigned char c : bytes) control = control || c < 0x20 || c == 0x7f;
    if (!control) {
        std::string out = "'";
        for (char c : bytes) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out + "'";
    }
    std::string out = "$'";
    for (unsigned char c : bytes) {
        if (c < 0x20 || c == 0x7f) out += fmt::format("\\x{:02x}", c);
        else if (c == '\'' || c == '\\') out += std::string("\\") + static_cast<char>(c);
        else out += static_cast<char>(c);
    }
    return out + "'";
}

// Anything there, or an answer that is not a definite "nothing": a mirror that cannot be looked at
// may well be one.
bool somethingAt(const std::string& path) {
    struct stat st {};
    return FVFileStatus::lstat(path.c_str(), &st) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

FVPlacementChange::FVPlacementChange(const std::string& destination, bool fromFolderPerSource,
                                     bool toFolderPerSource, const std::vector<FVSourceItemPtr>& items) {
    if (fromFolderPerSource == toFolderPerSource) return;
    std::vector<std::string> sources;
    for (const FVSourceItemPtr& item : items)
        if (item->mode() == FVSourceMode::Backup) sources.push_back(item->sourcePath());
    const FVMirrorLayout before(destination, fromFolderPerSource, sources);
    const FVMirrorLayout after(destination, toFolderPerSource, sources);
    for (const std::string& source : sources) {
        std::string from = before.mirrorPath(source), to = after.mirrorPath(source);
        if (from != to && somethingAt(from)) stranded_.push_back({from, to, somethingAt(to)});
    }
}

std::optional<std::string> FVPlacementChange::refusal(const std::string& repeat) const {
    if (stranded_.empty()) return std::nullopt;
    const bool one = stranded_.size() == 1;
    std::string text = fmt::format(
        "a new placement would leave {} already in the destination behind, never updated again, while the next "
        "run copied everything anew. Nothing was changed.\n"
        "To change the placement, back up to a new, empty destination, or, while no run is going on, move {} as "
        "below and repeat the change (the archives and the record of earlier runs keep the placement they were "
        "made with):\n",
        one ? "the mirror" : fmt::format("the {} mirrors", stranded_.size()), one ? "it" : "them");
    for (const Move& move : stranded_) {
        text += fmt::format("  mkdir -p -- {} && mv -nT -- {} {}\n", shellWord(FVText::deletingLastPathComponent(move.to)),
                            shellWord(move.from), shellWord(move.to));
        if (move.occupied)
            text += fmt::format("    ({} is already there, from an earlier placement: move it away first)\n",
                                shellWord(move.to));
    }
    return text + "  " + repeat;
}

}  // namespace ferrovane
