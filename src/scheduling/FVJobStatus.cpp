#include "scheduling/FVJobStatus.h"

#include "engine/config/FVPlist.h"
#include "fs/FVAtomicFile.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVPrivateFolder.h"
#include "platform/FVHomeDirectory.h"
#include "scheduling/FVLaunchAgentManager.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace ferrovane {

namespace {

constexpr const char* kSuffix = ".plist";
constexpr size_t kLargestFile = 64 * 1024;

constexpr std::array<std::pair<FVJobOutcome, const char*>, 8> kOutcomes{{
    {FVJobOutcome::Finished, "finished"},
    {FVJobOutcome::Warnings, "warnings"},
    {FVJobOutcome::Errors, "errors"},
    {FVJobOutcome::Stopped, "stopped"},
    {FVJobOutcome::Failed, "failed"},
    {FVJobOutcome::NotConnected, "not-connected"},
    {FVJobOutcome::NoSpace, "no-space"},
    {FVJobOutcome::Skipped, "skipped"},
}};

constexpr std::array<std::pair<FVJobTrigger, const char*>, 3> kTriggers{{
    {FVJobTrigger::Manual, "manual"},
    {FVJobTrigger::Schedule, "schedule"},
    {FVJobTrigger::Connect, "connect"},
}};

PlistDictPtr attemptDict(const FVJobAttempt& attempt) {
    auto dict = std::make_shared<PlistDict>();
    dict->set("time", static_cast<int64_t>(attempt.time));
    dict->set("trigger", std::string(jobTriggerName(attempt.trigger)));
    dict->set("outcome", std::string(jobOutcomeName(attempt.outcome)));
    dict->set("message", attempt.message);
    return dict;
}

std::optional<FVJobAttempt> attemptFrom(const PlistValue* value) {
    const PlistDictPtr* dict = value ? value->dict() : nullptr;
    if (!dict || !*dict) return std::nullopt;
    std::optional<FVJobOutcome> outcome = jobOutcomeNamed((*dict)->stringValue("outcome").value_or(""));
    if (!outcome) return std::nullopt;
    FVJobAttempt attempt;
    attempt.time = static_cast<std::time_t>((*dict)->integerValue("time"));
    attempt.outcome = *outcome;
    attempt.message = (*dict)->stringValue("message").value_or("");
    std::string trigger = (*dict)->stringValue("trigger").value_or("");
    for (const auto& [value, name] : kTriggers)
        if (trigger == name) attempt.trigger = value;
    return attempt;
}

}  // namespace

const char* jobOutcomeName(FVJobOutcome outcome) {
    for (const auto& [value, name] : kOutcomes)
        if (value == outcome) return name;
    return "failed";
}

std::optional<FVJobOutcome> jobOutcomeNamed(const std::string& name) {
    for (const auto& [value, text] : kOutcomes)
        if (name == text) return value;
    return std::nullopt;
}

const char* jobTriggerName(FVJobTrigger trigger) {
    for (const auto& [value, name] : kTriggers)
        if (value == trigger) return name;
    return "manual";
}

std::string FVJobStatusStore::defaultFolder() {
    if (const char* override = std::getenv("FERROVANE_JOB_STATUS_DIRECTORY"); override && *override == '/')
        return override;
    if (geteuid() == 0) return "/var/lib/Ferrovane/jobs";
    if (const char* xdg = std::getenv("XDG_STATE_HOME"); xdg && *xdg == '/') return std::string(xdg) + "/Ferrovane/jobs";
    std::string home = homeDirectory();
    return home.empty() ? std::string() : home + "/.local/state/Ferrovane/jobs";
}

std::string FVJobStatusStore::pathOf(const std::string& uuid) const { return folder_ + "/" + uuid + kSuffix; }

std::optional<FVJobStatus> FVJobStatusStore::read(const std::string& uuid) const {
    if (folder_.empty() || !FVLaunchAgentManager::isValidJobIdentifier(uuid)) return std::nullopt;
    std::string bytes;
    if (!FVAtomicFile::read(pathOf(uuid), kLargestFile, bytes, nullptr)) return std::nullopt;
    PlistParseResult parsed = parsePlist(bytes);
    const PlistDictPtr* root = parsed.value ? parsed.value->dict() : nullptr;
    if (!root || !*root) return std::nullopt;
    const PlistDict& dict = **root;
    FVJobStatus status;
    status.uuid = uuid;
    status.destination = dict.stringValue("destination").value_or("");
    status.lastAttempt = attemptFrom(dict.find("lastAttempt"));
    status.lastScheduledAttempt = attemptFrom(dict.find("lastScheduledAttempt"));
    status.lastSuccess = static_cast<std::time_t>(dict.integerValue("lastSuccess"));
    status.lastOverdueNotice = static_cast<std::time_t>(dict.integerValue("lastOverdueNotice"));
    if (dict.contains("overdueDays")) status.overdueDays = dict.integerValue("overdueDays");
    return status;
}

std::vector<FVJobStatus> FVJobStatusStore::all() const {
    std::vector<FVJobStatus> found;
    DIR* dir = folder_.empty() ? nullptr : FVDirectoryEntries::opendir(folder_.c_str());
    if (!dir) return found;
    while (dirent* entry = FVDirectoryEntries::readdir(dir)) {
        std::string name = entry->d_name;
        const size_t suffix = std::strlen(kSuffix);
        if (name.size() <= suffix || name.compare(name.size() - suffix, suffix, kSuffix) != 0) continue;
        if (std::optional<FVJobStatus> status = read(name.substr(0, name.size() - suffix)))
            found.push_back(std::move(*status));
    }
    FVDirectoryEntries::closedir(dir);
    return found;
}

bool FVJobStatusStore::record(const std::string& uuid, const std::string& destination, const FVJobAttempt& attempt,
                              std::optional<int64_t> overdueDays, std::string* error) {
    FVJobStatus status = read(uuid).value_or(FVJobStatus{});
    status.uuid = uuid;
    status.destination = destination;
    status.lastAttempt = attempt;
    if (attempt.trigger != FVJobTrigger::Manual) status.lastScheduledAttempt = attempt;
    if (overdueDays) status.overdueDays = *overdueDays;
    if (isSuccessful(attempt.outcome)) status.lastSuccess = std::max(status.lastSuccess, attempt.time);
    return write(status, error);
}

bool FVJobStatusStore::write(const FVJobStatus& status, std::string* error) {
    if (folder_.empty() || !FVLaunchAgentManager::isValidJobIdentifier(status.uuid)) {
        if (error) *error = folder_.empty() ? "there is no home folder to keep the status in" : "not a job identity";
        return false;
    }
    if (!FVPrivateFolder::make(folder_, error)) return false;
    PlistDict dict;
    dict.set("destination", status.destination);
    if (status.lastAttempt) dict.set("lastAttempt", attemptDict(*status.lastAttempt));
    if (status.lastScheduledAttempt) dict.set("lastScheduledAttempt", attemptDict(*status.lastScheduledAttempt));
    dict.set("lastSuccess", static_cast<int64_t>(status.lastSuccess));
    dict.set("lastOverdueNotice", static_cast<int64_t>(status.lastOverdueNotice));
    dict.set("overdueDays", status.overdueDays);
    return FVAtomicFile::write(pathOf(status.uuid), serializePlistXML(std::make_shared<PlistDict>(std::move(dict))), error);
}

}  // namespace ferrovane
