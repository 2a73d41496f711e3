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

FVRunError FVRunError::retryOnce(std::string_view step, int error, std::string path, std::string message) {
    return {Kind::RetryOnce, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::warning(std::string_view step, int error, std::string path, std::string message) {
    return {Kind::Warning, step, error, std::move(path), std::move(message)};
}

FVRunError FVRunError::listedWithLevel() && {
    if (listed == Listed::Message) listed = Listed::LogLine;
    return std::move(*this);
}

FVRunError FVRunError::loggedOnly() && {
    listed = Listed::Nothing;
    return std::move(*this);
}

FVRunError FVRunError::taggedAs(std::string_view word) && {
    level = word;
    return std::move(*this);
}

FVRunError FVRunError::retried() && {
    if (kind == Kind::RetryOnce) kind = Kind::Item;
    return std::move(*this);
}

std::string FVRunError::logLine() const {
    // A fatal error's words are those of the failure that ends the run.
    if (kind == Kind::Fatal) return "ERROR: " + destinationFailure().message();
    if (!level.empty()) return std::string(level) + message;
    return (kind == Kind::Warning ? "WARNING: " : "ERROR: ") + message;
}

std::string FVRunError::listText() const {
    switch (listed) {
    case Listed::Message: return message;
    case Listed::LogLine: return logLine();
    case Listed::Nothing: break;
    }
    return {};
}

}  // namespace ferrovane
