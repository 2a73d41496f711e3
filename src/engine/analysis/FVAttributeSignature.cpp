#include "engine/analysis/FVAttributeSignature.h"

#include "fs/FVExtendedAttributes.h"
#include "platform/FVSystemLog.h"

#include <fmt/format.h>

namespace ferrovane::FVAttributeSignature {

namespace {

constexpr const char* kClassName = "FVFileManager";

}  // namespace

std::string xattrNameAndDataStringForFileAtPath(const std::string& path, bool includeACL) {
    return FVExtendedAttributes(path).signature(includeACL, [](const char* name) {
        FVSystemLog::error(kClassName, fmt::format("Failed to read xattr with name, skipping: {}", name));
    });
}

bool xattrIdentialforFileAtPath(const std::string& path, const std::string& otherPath, bool includeACL) {
    if (path.empty() || otherPath.empty()) {
        FVSystemLog::error(kClassName, fmt::format("Xattr comparison encountered empty path: {} -> {}", path, otherPath));
        return false;
    }
    return xattrNameAndDataStringForFileAtPath(path, includeACL) ==
           xattrNameAndDataStringForFileAtPath(otherPath, includeACL);
}

}  // namespace ferrovane::FVAttributeSignature
