#include "engine/config/FVConfigurationFile.h"

#include "engine/config/FVByteSafeEntry.h"
#include "fs/FVAtomicFile.h"
#include "fs/FVFileStatus.h"
#include "fs/FVRenames.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

namespace ferrovane::FVConfigurationFile {

namespace {

std::string joinComponent(const std::string& folder, const char* name) {
    if (!folder.empty() && folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

bool exists(const std::string& path) {
    struct stat st {};
    return FVFileStatus::lstat(path.c_str(), &st) == 0;
}

}  // namespace

std::string currentPath(const std::string& destination) { return joinComponent(destination, fileName); }
std::string formattedPath(const std::string& destination) { return destination + "/" + fileName; }
std::string legacyPath(const std::string& destination) { return joinComponent(destination, legacyFileName); }

bool isNewDestination(const std::string& destination) {
    struct stat st {};
    for (const std::string& path : {currentPath(destination), legacyPath(destination)})
        if (FVFileStatus::lstat(path.c_str(), &st) == 0 || errno != ENOENT) return false;
    return true;
}

bool convertLegacyFile(const std::string& destination) {
    std::string current = currentPath(destination);
    std::string legacy = legacyPath(destination);
    if (exists(current) || !exists(legacy)) return false;
    return FVRenames::rename(legacy.c_str(), current.c_str()) == 0;
}

FVConfigurationReadResult read(const std::string& path) {
    FVConfigurationReadResult result;
    if (FVFileStatus::access(path.c_str(), R_OK) != 0) {
        result.status = FVConfigurationReadStatus::Unavailable;
        result.problem = path + " is missing or not readable";
        return result;
    }
    std::string bytes;
    std::string error;
    bool tooLarge = false;
    bool notRegular = false;
    if (!FVAtomicFile::read(path, maximumFileSize, bytes, &error, &tooLarge, &notRegular)) {
        result.status = tooLarge || notRegular ? FVConfigurationReadStatus::NotPropertyList
                                               : FVConfigurationReadStatus::Unavailable;
        result.problem = error;
        return result;
    }
    return parse(bytes, path);
}

namespace {

// Why a source item cannot be used, or nothing when it can.
std::optional<std::string> unusableItem(const PlistValue& entry) {
    const PlistDictPtr* item = entry.dict();
    if (!item) return "it is a " + std::string(entry.typeName()) + ", not a dictionary";
    const PlistValue* sourcePath = (*item)->find(FVSourceKey::sourcePath);
    if (!sourcePath || !sourcePath->string() || sourcePath->string()->empty()) return "it has no \"sourcePath\" text";
    return std::nullopt;
}

const PlistArrayPtr* sourcesOf(const PlistDict& root) {
    const PlistValue* sources = root.find("sources");
    return sources ? sources->array() : nullptr;
}

// A parsed file's source entries with their exact bytes back (see FVByteSafeEntry).
void decodeSources(const PlistDict& root) {
    if (const PlistArrayPtr* sources = sourcesOf(root); sources && *sources)
        for (PlistValue& entry : **sources)
            if (const PlistDictPtr* item = entry.dict(); item && *item) FVByteSafeEntry::decode(**item);
}

// Every write of the file goes through here: sizes are never stored, and a source entry's text
// that XML cannot carry goes as its bytes beside it.
bool writeRoot(const PlistDict& root, const std::string& path, std::string* error) {
    PlistDict out;
    for (const auto& [key, value] : root.entries()) {
        const PlistArrayPtr* sources = key == "sources" ? value.array() : nullptr;
        if (!sources || !*sources) {
            out.set(key, value);
            continue;
        }
        auto written = std::make_shared<PlistArray>();
        for (const PlistValue& entry : **sources) {
            const PlistDictPtr* item = entry.dict();
            if (!item || !*item) {
                written->push_back(entry);
                continue;
            }
            auto safe = std::make_shared<PlistDict>(FVByteSafeEntry::encoded(**item));
            safe->remove(FVSourceKey::sizeInMB);
            written->emplace_back(std::move(safe));
        }
        out.set(key, std::move(written));
    }
    return FVAtomicFile::write(path, serializePlistXML(PlistValue(std::make_shared<PlistDict>(std::move(out)))), error);
}

// The parsed file as it is on disk now, when it is a property list with a dictionary root.
PlistDictPtr readRoot(const std::string& path, std::string& error) {
    std::string bytes;
    if (!FVAtomicFile::read(path, maximumFileSize, bytes, &error)) return nullptr;
    PlistParseResult parsed = parsePlist(bytes);
    if (!parsed.value) {
        error = path + ": " + parsed.error;
        return nullptr;
    }
    const PlistDictPtr* root = parsed.value->dict();
    if (!root || !*root) {
        error = path + ": the property list's root is not a dictionary";
        return nullptr;
    }
    decodeSources(**root);
    return *root;
}

}  // namespace

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

    decodeSources(**root);
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
            if (auto why = unusableItem(entry)) {
                result.skippedItems.push_back("Source item " + std::to_string(index) + " of " + path +
                                              " was skipped: " + *why + ". It is kept in the file as it is.");
                continue;
            }
            result.configuration.sources.push_back(std::make_shared<FVSourceItem>(**entry.dict()));
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
        sources->emplace_back(std::make_shared<PlistDict>(item->snapshot()));
    }
    // Items the reader skipped go back where they stood; the list around them may have changed.
    std::string ignored;
    if (PlistDictPtr onDisk = readRoot(path, ignored)) {
        if (const PlistArrayPtr* stored = sourcesOf(*onDisk)) {
            for (size_t index = 0; index < (*stored)->size(); ++index) {
                const PlistValue& entry = (**stored)[index];
                if (!unusableItem(entry)) continue;
                sources->insert(sources->begin() + static_cast<ptrdiff_t>(std::min(index, sources->size())), entry);
            }
        }
    }
    PlistDict root;
    root.set("settings", std::make_shared<PlistDict>(options));
    root.set("sources", std::move(sources));
    return writeRoot(root, path, error);
}

bool writeRunResults(const std::vector<FVSourceItemPtr>& backedUpItems, const std::string& path,
                     std::string* error) {
    std::string problem;
    PlistDictPtr root = readRoot(path, problem);
    if (!root) {
        if (error) *error = problem;
        return false;
    }
    const PlistArrayPtr* stored = sourcesOf(*root);
    if (!stored) return true;  // nothing left on disk that the run could have results for
    for (const PlistValue& entry : **stored) {
        if (unusableItem(entry)) continue;
        PlistDict& onDisk = **entry.dict();
        std::string sourcePath = *onDisk.find(FVSourceKey::sourcePath)->string();
        for (const FVSourceItemPtr& item : backedUpItems) {
            if (item->sourcePath() != sourcePath) continue;
            for (const char* key : FVSourceKey::runResultKeys) {
                if (auto value = item->value(key)) onDisk.set(key, *value);
                else onDisk.remove(key);
            }
        }
    }
    return writeRoot(*root, path, error);
}

const std::vector<std::pair<const char*, int64_t>>& defaultOptions() {
    static const std::vector<std::pair<const char*, int64_t>> defaults = [] {
        std::vector<std::pair<const char*, int64_t>> out;
        for (const FVOptionRule& rule : FVOptionTable::rules())
            if (rule.windowDefault) out.emplace_back(rule.key, *rule.windowDefault);
        return out;
    }();
    return defaults;
}

void applyDefaultOptions(PlistDict& options) {
    for (const auto& [key, value] : defaultOptions())
        if (!options.contains(key)) options.set(key, value);
}

PlistDictPtr newDestinationOptions() {
    auto options = std::make_shared<PlistDict>();
    applyDefaultOptions(*options);
    for (const FVOptionRule& rule : FVOptionTable::rules()) {
        if (rule.newDestinationDefault) options->set(rule.key, *rule.newDestinationDefault);
    }
    return options;
}

}  // namespace ferrovane::FVConfigurationFile
