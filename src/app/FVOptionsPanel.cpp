#include "app/FVOptionsPanel.h"

#include "app/FVQtStrings.h"
#include "engine/FVConfigurationFile.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QSpinBox>
#include <QTimeEdit>
#include <QVBoxLayout>

namespace ferrovane {

namespace {
QCheckBox* checkBox(const char* key, const char* name) {
    auto* box = new QCheckBox(localized(key));
    box->setObjectName(name);
    return box;
}

QSpinBox* daysBox(const char* name) {
    auto* box = new QSpinBox;
    box->setObjectName(name);
    box->setRange(1, 3650);
    box->setSuffix(" " + localized("optionsdays"));
    return box;
}
}  // namespace

FVOptionsPanel::FVOptionsPanel(QWidget* window, FVOptionsPanelController& controller, bool runningAsRoot)
    : QDialog(window), controller_(controller) {
    setObjectName("optionsPanel");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized("optionstitle"));

    // Copying.
    auto* copying = new QGroupBox(localized("optionsgroupcopying"));
    auto* copyingForm = new QFormLayout(copying);
    syncMode_ = new QComboBox;
    syncMode_->setObjectName("syncMode");
    syncMode_->addItem(localized("optionssyncmodefolder"), 1);
    syncMode_->addItem(localized("optionssyncmoderebuild"), 0);
    maxThreads_ = new QSpinBox;
    maxThreads_->setObjectName("maxThreads");
    maxThreads_->setRange(1, 15);
    copyingForm->addRow(localized("optionssyncmode"), syncMode_);
    copyingForm->addRow(localized("optionsmaxthreads"), maxThreads_);
    checkBoxes_ = {
        {FVOptionKey::ignoreFileFlagChanges, checkBox("optionsignoreflags", "ignoreFileFlagChanges")},
        {FVOptionKey::disableACLClone, checkBox("optionsdisableacl", "disableACLClone")},
        {FVOptionKey::preallocate, checkBox("optionspreallocate", "preallocate")},
        {FVOptionKey::excludeSymlinks, checkBox("optionsexcludesymlinks", "excludeSymlinks")},
        {FVOptionKey::performExtendedLogging, checkBox("optionsextendedlogging", "performExtendedLogging")},
    };
    for (auto& [key, box] : checkBoxes_) copyingForm->addRow(box);

    // Archives.
    auto* archives = new QGroupBox(localized("optionsgrouparchives"));
    auto* archivesGrid = new QFormLayout(archives);
    moveDeletedFiles_ = checkBox("optionsmovedeleted", "moveDeletedFiles");
    moveChangedFiles_ = checkBox("optionsmovechanged", "moveChangedFiles");
    purgeRemoved_ = checkBox("optionspurgeremoved", "purgeRemovedArchive");
    purgeChanged_ = checkBox("optionspurgechanged", "purgeChangedArchive");
    purgeRemovedDays_ = daysBox("purgeRemovedArchiveDays");
    purgeChangedDays_ = daysBox("purgeChangedArchiveDays");
    archivesGrid->addRow(moveDeletedFiles_);
    archivesGrid->addRow(purgeRemoved_, purgeRemovedDays_);
    archivesGrid->addRow(moveChangedFiles_);
    archivesGrid->addRow(purgeChanged_, purgeChangedDays_);
    checkBoxes_.push_back({FVOptionKey::moveDeletedFiles, moveDeletedFiles_});
    checkBoxes_.push_back({FVOptionKey::moveChangedFiles, moveChangedFiles_});
    checkBoxes_.push_back({FVOptionKey::purgeRemovedArchive, purgeRemoved_});
    checkBoxes_.push_back({FVOptionKey::purgeChangedArchive, purgeChanged_});

    // Schedule.
    auto* schedule = new QGroupBox(localized("optionsgroupschedule"));
    auto* scheduleForm = new QFormLayout(schedule);
    automationEnabled_ = checkBox("optionsautomationenabled", "automationEnabled");
    automationInterval_ = new QComboBox;
    automationInterval_->setObjectName("automationInterval");
    automationInterval_->addItem(localized("optionsdaily"), 0);
    automationInterval_->addItem(localized("optionsweekly"), 1);
    automationWeekday_ = new QComboBox;
    automationWeekday_->setObjectName("automationWeekday");
    // Monday first; the value is the job launcher's weekday number (0 Sunday ... 6 Saturday).
    for (int day = 1; day <= 7; ++day) automationWeekday_->addItem(QLocale().dayName(day), day % 7);
    automationTime_ = new QTimeEdit;
    automationTime_->setObjectName("automationTime");
    automationTime_->setDisplayFormat("HH:mm");
    auto* when = new QHBoxLayout;
    when->addWidget(automationInterval_);
    when->addWidget(automationWeekday_);
    when->addWidget(new QLabel(localized("optionsat")));
    when->addWidget(automationTime_);
    when->addStretch();
    automationDescription_ = new QLabel;
    automationDescription_->setObjectName("automationDescription");
    automationDescription_->setWordWrap(true);
    automationDescription_->setForegroundRole(QPalette::PlaceholderText);
    automationDescription_->setText(localized(runningAsRoot ? "SuperUserAutomationNote" : "optionsautomationnote"));
    scheduleForm->addRow(automationEnabled_);
    scheduleForm->addRow(when);
    scheduleForm->addRow(automationDescription_);
    QCheckBox* verifyMonthly = checkBox("optionsverifymonthly", "automationVerifyMonthly");
    checkBoxes_.push_back({FVOptionKey::automationVerifyMonthly, verifyMonthly});
    scheduleForm->addRow(verifyMonthly);

    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

    auto* layout = new QVBoxLayout(this);
    auto* columns = new QHBoxLayout;
    columns->addWidget(copying, 1);
    columns->addWidget(archives, 1);
    layout->addLayout(columns);
    layout->addWidget(schedule);
    layout->addWidget(buttons);

    load();
    for (QCheckBox* box : {moveDeletedFiles_, moveChangedFiles_, purgeRemoved_, purgeChanged_, automationEnabled_})
        connect(box, &QCheckBox::toggled, this, &FVOptionsPanel::updateEnabledState);
    connect(automationInterval_, &QComboBox::currentIndexChanged, this, &FVOptionsPanel::updateEnabledState);
    updateEnabledState();
}

void FVOptionsPanel::load() {
    const PlistDict& options = *controller_.allOptions();
    for (auto& [key, box] : checkBoxes_) box->setChecked(options.boolValue(key));
    automationEnabled_->setChecked(options.boolValue(FVOptionKey::automationEnabled));
    syncMode_->setCurrentIndex(options.integerValue(FVOptionKey::syncMode) != 0 ? 0 : 1);
    maxThreads_->setValue(int(options.integerValue(FVOptionKey::maxThreads)));
    purgeRemovedDays_->setValue(int(options.integerValue(FVOptionKey::purgeRemovedArchiveDays)));
    purgeChangedDays_->setValue(int(options.integerValue(FVOptionKey::purgeChangedArchiveDays)));
    automationTime_->setTime(QTime(int(options.integerValue(FVOptionKey::automationTimeHours)) % 24,
                                   int(options.integerValue(FVOptionKey::automationTimeMinutes)) % 60));
    automationInterval_->setCurrentIndex(options.integerValue(FVOptionKey::automationIntervalSelection) != 0 ? 1 : 0);
    if (options.contains(FVOptionKey::automationWeekdaySelection)) {
        int weekday = int(options.integerValue(FVOptionKey::automationWeekdaySelection)) % 7;
        automationWeekday_->setCurrentIndex(automationWeekday_->findData(weekday));
    }
}

void FVOptionsPanel::store() {
    PlistDict& options = *controller_.allOptions();
    auto setInteger = [&options](const char* key, int64_t value) { options.set(key, value); };
    for (auto& [key, box] : checkBoxes_) {
        // Keys the user never touched stay absent, as before the sheet was opened.
        if (options.contains(key) || box->isChecked()) setInteger(key, box->isChecked() ? 1 : 0);
    }
    if (options.contains(FVOptionKey::automationEnabled) || automationEnabled_->isChecked())
        setInteger(FVOptionKey::automationEnabled, automationEnabled_->isChecked() ? 1 : 0);
    setInteger(FVOptionKey::syncMode, syncMode_->currentData().toInt());
    setInteger(FVOptionKey::maxThreads, maxThreads_->value());
    setInteger(FVOptionKey::purgeRemovedArchiveDays, purgeRemovedDays_->value());
    setInteger(FVOptionKey::purgeChangedArchiveDays, purgeChangedDays_->value());
    setInteger(FVOptionKey::automationTimeHours, automationTime_->time().hour());
    setInteger(FVOptionKey::automationTimeMinutes, automationTime_->time().minute());
    if (automationEnabled_->isChecked() || options.contains(FVOptionKey::automationIntervalSelection)) {
        setInteger(FVOptionKey::automationIntervalSelection, automationInterval_->currentData().toInt());
        // A weekly schedule always names its day.
        setInteger(FVOptionKey::automationWeekdaySelection, automationWeekday_->currentData().toInt());
    }
}

void FVOptionsPanel::updateEnabledState() {
    purgeRemoved_->setEnabled(moveDeletedFiles_->isChecked());
    purgeRemovedDays_->setEnabled(moveDeletedFiles_->isChecked() && purgeRemoved_->isChecked());
    purgeChanged_->setEnabled(moveChangedFiles_->isChecked());
    purgeChangedDays_->setEnabled(moveChangedFiles_->isChecked() && purgeChanged_->isChecked());
    bool automation = automationEnabled_->isChecked();
    automationInterval_->setEnabled(automation);
    automationTime_->setEnabled(automation);
    automationWeekday_->setEnabled(automation && automationInterval_->currentData().toInt() != 0);
}

void FVOptionsPanel::done(int result) {
    store();
    QDialog::done(result);
}

}  // namespace ferrovane
