#include "engine/FVRunError.h"

#include <cerrno>
#include <utility>

namespace ferrovane {

FVRunError::Kind FVRunError::classify(int error) {
    // ENOTCONN: its FUSE driver has gone; ENODEV: the device itself.
    const bool disk =
        error == EROFS || error == ENOSPC || error == EDQUOT || error == EIO || error == ENOTCONN || error == ENODEV;
    return disk ? Kind::Fatal : Kind::Item;
}

FVRunError FVRunError::atDestination(std::string_view step, int error, std::string path, std::string message) {
    return {classify(error), step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::item(std::string_view step, int error, std::string path, std::string message) {
    return {Kind::Item, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::warning(std::string_view step, int error, std::string path, std::string message) {
    return {Kind::Warning, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::listedWithLevel() && {
    levelInList = true;
    return std::move(*this);
}

std::string FVRunError::logLine() const { return (kind == Kind::Warning ? "WARNING: " : "ERROR: ") + message; }

std::string FVRunError::listText() const { return levelInList ? logLine() : message; }

}  // namespace ferrovane
