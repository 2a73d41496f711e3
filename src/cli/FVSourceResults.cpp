#include "cli/FVSourceResults.h"

#include "cli/FVJsonText.h"
#include "engine/run/FVNumber.h"

#include <fmt/format.h>

#include <ctime>
#include <optional>

namespace ferrovane::FVSourceResults {

namespace {

std::optional<double> lastBackup(const FVSourceItem& item) {
    auto date = item.value(FVSourceKey::lastBackupDate);
    if (!date || !date->is<PlistDate>()) return std::nullopt;
    return date->get<PlistDate>()->secondsSince1970;
}

std::string formatted(double secondsSince1970, const char* format) {
    time_t t = static_cast<time_t>(secondsSince1970);
    tm parts {};
    localtime_r(&t, &parts);
    char buffer[64];
    return std::string(buffer, std::strftime(buffer, sizeof buffer, format, &parts));
}

uint64_t bytesCopied(const FVSourceItem& item) {
    return static_cast<uint64_t>(item.integerValue(FVSourceKey::totalBytesCopied));
}

}  // namespace

std::string line(const FVSourceItem& item) {
    auto date = lastBackup(item);
    if (!date) return "not backed up yet";
    return fmt::format("last backup {}: {}, {} updated, {} copied", formatted(*date, "%Y-%m-%d %H:%M:%S"),
                       FVNumber::counted(static_cast<uint64_t>(item.integerValue(FVSourceKey::totalFilesCount)), "file"),
                       item.integerValue(FVSourceKey::updatedFilesCount),
                       FVNumber::formattedDiskSizeString(static_cast<double>(bytesCopied(item))));
}

std::string jsonFields(const FVSourceItem& item) {
    auto date = lastBackup(item);
    return fmt::format("\"lastBackup\": {}, \"totalFiles\": {}, \"updatedFiles\": {}, \"bytesCopied\": {}",
                       date ? FVJsonText::time(static_cast<std::time_t>(*date)) : "null",
                       item.integerValue(FVSourceKey::totalFilesCount),
                       item.integerValue(FVSourceKey::updatedFilesCount), bytesCopied(item));
}

}  // namespace ferrovane::FVSourceResults
