#include "scheduling/FVOptionsPanelController.h"

#include "engine/config/FVConfigurationFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>

namespace ferrovane {

FVOptionsPanelController::FVOptionsPanelController(FVLaunchAgentManager& launchAgentManager)
    : launchAgentManager_(launchAgentManager), options_(std::make_shared<PlistDict>()) {
    FVConfigurationFile::applyDefaultOptions(*options_);
}

void FVOptionsPanelController::setAllOptions(PlistDictPtr options) {
    options_ = options ? std::move(options) : std::make_shared<PlistDict>();
    FVConfigurationFile::applyDefaultOptions(*options_);
}

std::string FVOptionsPanelController::uuid() const {
    return options().UUID;
}

std::string FVOptionsPanelController::makeUUID() {
    std::random_device device;  // the kernel's random source
    uint8_t bytes[16];
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(device());
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    std::string text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += fmt::format("{:02X}", bytes[i]);
    }
    return text;
}

bool FVOptionsPanelController::updateAutomations(const std::string& destinationPath, std::string* error) {
    FVOptionsReadResult read = FVOptionTable::read(*options_);
    if (!read.problems.empty()) {
        // A job is never written from a value that cannot be trusted.
        if (error) *error = read.problems.front();
        return false;
    }
    std::string id = read.options.UUID;
    if (id.empty()) {
        id = makeUUID();
        FVOptionTable::store(*options_, &FVOptions::UUID, id);
    }
    if (read.options.automationEnabled) {
        FVJobSchedule schedule;
        schedule.hour = read.options.automationTimeHours;
        schedule.minute = read.options.automationTimeMinutes;
        schedule.weekday =
            read.options.automationIntervalSelection == 0 ? -1 : read.options.automationWeekdaySelection;
        if (!launchAgentManager_.writeJob(id, destinationPath, schedule, error)) return false;
    } else {
        launchAgentManager_.removeJob(id, FVJobKind::Backup);
    }
    if (read.options.backUpWhenConnected) {
        if (!launchAgentManager_.writeConnectJob(id, destinationPath, error)) return false;
    } else {
        launchAgentManager_.removeJob(id, FVJobKind::Connect);
    }
    if (!read.options.automationVerifyMonthly) {
        launchAgentManager_.removeJob(id, FVJobKind::Verify);
        return true;
    }
    return launchAgentManager_.writeVerifyJob(id, destinationPath, error);
}

std::vector<FVJobKind> FVOptionsPanelController::writtenJobKinds() const {
    FVOptionsReadResult read = FVOptionTable::read(*options_);
    std::vector<FVJobKind> kinds;
    if (read.options.UUID.empty()) return kinds;
    if (read.options.automationEnabled) kinds.push_back(FVJobKind::Backup);
    if (read.options.backUpWhenConnected) kinds.push_back(FVJobKind::Connect);
    if (read.options.automationVerifyMonthly) kinds.push_back(FVJobKind::Verify);
    std::erase_if(kinds, [&](FVJobKind kind) { return !launchAgentManager_.isJobPresent(read.options.UUID, kind); });
    return kinds;
}

std::vector<std::string> FVOptionsPanelController::writtenJobFiles() const {
    std::vector<std::string> files;
    for (FVJobKind kind : writtenJobKinds())
        for (const std::string& path : launchAgentManager_.jobFilePaths(uuid(), kind)) files.push_back(path);
    return files;
}

std::vector<std::string> FVOptionsPanelController::manualSetupCommands() const {
    FVOptionsReadResult read = FVOptionTable::read(*options_);
    std::vector<std::string> lines;
    for (FVJobKind kind : writtenJobKinds()) {
        for (const std::vector<std::string>& command : launchAgentManager_.loadCommands(read.options.UUID, kind)) {
            std::string line;
            for (const std::string& word : command) line += (line.empty() ? "" : " ") + word;
            // Reloading once is enough for every job.
            if (std::find(lines.begin(), lines.end(), line) == lines.end()) lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace ferrovane
