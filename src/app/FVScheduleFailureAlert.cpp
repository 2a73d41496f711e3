#include "app/FVScheduleFailureAlert.h"

#include "app/FVAlert.h"
#include "app/FVQtStrings.h"
#include "scheduling/FVLaunchAgentManager.h"

#include <QDir>
#include <QSettings>

#include <unistd.h>

namespace ferrovane {

namespace {
QString settingsKey(const std::string& uuid) { return "scheduleFailureTold/" + QString::fromStdString(uuid); }
}  // namespace

QMessageBox* FVScheduleFailureAlert::showOnce(QWidget* window, const FVLaunchAgentManager& jobs, const std::string& uuid,
                                              const std::string& reason) {
    QSettings settings;
    const QString told = QString::fromStdString(reason);
    if (settings.value(settingsKey(uuid)).toString() == told) return nullptr;
    settings.setValue(settingsKey(uuid), told);
    QMessageBox* box = FVAlert::show(window, "automationfailed", "automationfailedlong");
    box->setInformativeText(localizedFormat("automationfailedreason", reason, remedy(jobs, uuid)));
    return box;
}

void FVScheduleFailureAlert::forget(const std::string& uuid) { QSettings().remove(settingsKey(uuid)); }

std::string FVScheduleFailureAlert::remedy(const FVLaunchAgentManager& jobs, const std::string& uuid) {
    // The same service manager the jobs were loaded into: the system's for root, the user's otherwise.
    const bool root = getuid() == 0;
    // The units that were written: the calendar's timers and whatever starts a run on its own.
    const QString label = QString::fromStdString(FVLaunchAgentManager::jobLabel(uuid));
    const QStringList units =
        FVLaunchAgentManager::isValidJobIdentifier(uuid)
            ? QDir(qPath(jobs.jobDirectory())).entryList({label + "*.timer", label + "*.path"}, QDir::Files, QDir::Name)
            : QStringList();
    std::string text;
    if (units.isEmpty()) {
        text = FVStrings::localized("automationfailednounits");
    } else {
        const std::string systemctl = root ? "systemctl" : "systemctl --user";
        text = FVStrings::format("automationfailedbyhand", systemctl);
        text += "\n    " + systemctl + " daemon-reload";
        for (const QString& unit : units) text += "\n    " + systemctl + " enable --now " + unit.toStdString();
    }
    if (!FVLaunchAgentManager::jobsRunWhileLoggedOut())
        text += "\n\n" + FVStrings::localized("automationlinger");
    return text;
}

}  // namespace ferrovane
