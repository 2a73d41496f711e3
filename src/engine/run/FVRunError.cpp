#include "engine/run/FVRunError.h"

#include <cerrno>
#include <utility>

namespace ferrovane {

bool FVRunError::isFatal(int error) {
    // ENOTCONN: its FUSE driver has gone; ENODEV: the device itself.
    return error == EROFS || error == ENOSPC || error == EDQUOT || error == EIO || error == ENOTCONN || error == ENODEV;
}

FVRunError FVRunError::atDestination(std::string_view step, int error, std::string path, std::string message,
                                     Kind otherwise) {
    return {isFatal(error) ? Kind::Fatal : otherwise, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::item(std::string_view step, int error, std::string path, std::string message) {
    return {Kind::Item, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::listedWithLevel() && {
    levelInList = true;
    return std::move(*this);
}

std::string FVRunError::logLine() const { return (kind == Kind::Warning ? "WARNING: " : "ERROR: ") + message; }

std::string FVRunError::listText() const { return levelInList ? logLine() : message; }

}  // namespace ferrovane
