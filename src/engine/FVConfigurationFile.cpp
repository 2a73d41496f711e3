#include "engine/FVConfigurationFile.h"

#include "engine/FVAtomicFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace ferrovane::FVConfigurationFile {

namespace {

std::string joinComponent(const std::string& folder, const char* name) {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace

std::string currentPath(const std::string& destination) { return joinComponent(destination, fileName); }
std::string formattedPath(const std::string& destination) { return destination + "/" + fileName; }
std::string legacyPath(const std::string& destination) { return joinComponent(destination, legacyFileName); }

bool convertLegacyFile(const std::string& destination) {
    std::string current = currentPath(destination);
    std::string legacy = legacyPath(destination);
    if (exists(current) || !exists(legacy)) return false;
    return std::rename(legacy.c_str(), current.c_str()) == 0;
}

FVConfigurationReadResult read(const std::string& path) {
    FVConfigurationReadResult result;
    if (access(path.c_str(), R_OK) != 0) {
        result.status = FVConfigurationReadStatus::Unavailable;
        result.problem = path + " is missing or not readable";
        return result;
    }
    std::string bytes;
    std::string error;
    bool tooLarge = false;
    if (!FVAtomicFile::read(path, maximumFileSize, bytes, &error, &tooLarge)) {
        result.status = tooLarge ? FVConfigurationReadStatus::NotPropertyList
                                 : FVConfigurationReadStatus::Unavailable;
        result.problem = error;
        return result;
    }
    return parse(bytes, path);
}

FVConfigurationReadResult parse(std::string_view bytes, const std::string& path) {
    FVConfigurationReadResult result;
    PlistParseResult parsed = parsePlist(bytes);
    if (!parsed.value) {
        result.status = FVConfigurationReadStatus::NotPropertyList;
        result.problem = path + ": " + parsed.error;
        return result;
    }
    const PlistDictPtr* root = parsed.value->dict();
    if (!root || !*root) {
        result.status = FVConfigurationReadStatus::NotPropertyList;
        result.problem = path + ": the property list's root is a " +
                         std::string(parsed.value->typeName()) + ", not a dictionary";
        return result;
    }

    result.status = FVConfigurationReadStatus::Malformed;
    if (const PlistValue* settings = (*root)->find("settings")) {
        const PlistDictPtr* dict = settings->dict();
        if (!dict) {
            result.problem = path + ": \"settings\" is a " + std::string(settings->typeName()) +
                             ", not a dictionary";
            return result;
        }
        result.configuration.settings = std::make_shared<PlistDict>(**dict);
    }
    if (const PlistValue* sources = (*root)->find("sources")) {
        const PlistArrayPtr* array = sources->array();
        if (!array) {
            result.problem = path + ": \"sources\" is a " + std::string(sources->typeName()) +
                             ", not an array";
            return result;
        }
        size_t index = 0;
        for (const PlistValue& entry : **array) {
            ++index;
            const PlistDictPtr* item = entry.dict();
            if (!item) {
                result.problem = path + ": source item " + std::to_string(index) + " is a " +
                                 entry.typeName() + ", not a dictionary";
                return result;
            }
            const PlistValue* sourcePath = (*item)->find(FVSourceKey::sourcePath);
            if (!sourcePath || !sourcePath->string() || sourcePath->string()->empty()) {
                result.problem = path + ": source item " + std::to_string(index) +
                                 " has no \"sourcePath\" string";
                return result;
            }
            result.configuration.sources.push_back(std::make_shared<FVSourceItem>(**item));
        }
    }
    result.status = FVConfigurationReadStatus::Ok;
    return result;
}

bool writeSettingsForSourceConfiguration(const std::vector<FVSourceItemPtr>& items,
                                         const PlistDict& options, const std::string& path,
                                         std::string* error) {
    auto sources = std::make_shared<PlistArray>();
    sources->reserve(items.size());
    for (const FVSourceItemPtr& item : items) {
        item->removeValue(FVSourceKey::sizeInMB);
        sources->push_back(std::make_shared<PlistDict>(item->snapshot()));
    }
    auto root = std::make_shared<PlistDict>();
    root->set("settings", std::make_shared<PlistDict>(options));
    root->set("sources", std::move(sources));
    return FVAtomicFile::write(path, serializePlistXML(PlistValue(root)), error);
}

const std::vector<std::pair<const char*, int64_t>>& defaultOptions() {
    static const std::vector<std::pair<const char*, int64_t>> defaults = {
        {FVOptionKey::moveDeletedFiles, 1},       {FVOptionKey::purgeRemovedArchiveDays, 30},
        {FVOptionKey::purgeChangedArchiveDays, 30}, {FVOptionKey::maxThreads, 2},
        {FVOptionKey::ignoreFileFlagChanges, 1},  {FVOptionKey::syncMode, 1},
        {FVOptionKey::automationTimeHours, 14},   {FVOptionKey::automationTimeMinutes, 0},
    };
    return defaults;
}

void applyDefaultOptions(PlistDict& options) {
    for (const auto& [key, value] : defaultOptions())
        if (!options.contains(key)) options.set(key, value);
}

}  // namespace ferrovane::FVConfigurationFile
