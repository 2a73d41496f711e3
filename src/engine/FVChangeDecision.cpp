#include "engine/FVChangeDecision.h"

namespace ferrovane {

FVChangeDecision::Reason FVChangeDecision::decide(const Side& source, const Side& destination,
                                                  const std::function<bool()>& xattrsIdentical) {
    if (destination.type == FVFileType::None) return Reason::DestinationMissing;
    // An existing link is never replaced; a folder or file where the source now has a link is.
    if (source.type == FVFileType::SymbolicLink)
        return destination.type == FVFileType::SymbolicLink ? Reason::Unchanged : Reason::TypeMismatch;
    if (source.type == FVFileType::Regular && source.size != destination.size) return Reason::SizeMismatch;
    const int64_t difference = source.modificationDate - destination.modificationDate;
    if (difference > kDateWindow || difference < -kDateWindow) return Reason::DateMismatch;
    if (xattrsIdentical && !xattrsIdentical()) return Reason::XattrMismatch;
    return Reason::Unchanged;
}

FVChangeDecision::Side FVChangeDecision::sideOf(FVFileSystemItem& item) {
    if (!item.fileExists()) return {};
    return {item.fileType(), item.fileSize(), item.fileModificationDate()};
}

}  // namespace ferrovane
