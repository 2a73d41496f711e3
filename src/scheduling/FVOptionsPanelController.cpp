#include "scheduling/FVOptionsPanelController.h"

#include "engine/FVConfigurationFile.h"

#include <fmt/format.h>

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
    return options_->stringValue(FVOptionKey::UUID).value_or("");
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
    std::string id = uuid();
    if (id.empty()) {
        id = makeUUID();
        options_->set(FVOptionKey::UUID, id);
    }
    if (!options_->boolValue(FVOptionKey::automationEnabled)) {
        launchAgentManager_.removeJob(id);
        return true;
    }
    FVJobSchedule schedule;
    schedule.hour = options_->integerValue(FVOptionKey::automationTimeHours);
    schedule.minute = options_->integerValue(FVOptionKey::automationTimeMinutes);
    schedule.weekday = options_->integerValue(FVOptionKey::automationIntervalSelection) == 0
                           ? -1
                           : options_->integerValue(FVOptionKey::automationWeekdaySelection);
    return launchAgentManager_.writeJob(id, destinationPath, schedule, error);
}

}  // namespace ferrovane
