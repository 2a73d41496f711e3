#include "app/FVOptionsPanel.h"

#include "app/FVQtStrings.h"
#include "app/FVTimeField.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVExcludePattern.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGuiApplication>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QTimeEdit>
#include <QVBoxLayout>

#include <algorithm>
#include <climits>

namespace ferrovane {

namespace {

// A line that says what the settings above it do, in the quieter colour of explanations.
QLabel* note(const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

// A check box with the number that belongs to it on the same line.
QHBoxLayout* row(QWidget* first, QWidget* second) {
    auto* line = new QHBoxLayout;
    line->addWidget(first);
    line->addWidget(second);
    line->addStretch();
    return line;
}

}  // namespace

FVOptionsPanel::FVOptionsPanel(QWidget* window, FVOptionsPanelController& controller, bool runningAsRoot)
    : QDialog(window), controller_(controller) {
    setObjectName("optionsPanel");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized("optionstitle"));

    auto* content = new QWidget;
    auto* grid = new QGridLayout(content);
    grid->addWidget(makeVersionsGroup(), 0, 0, 2, 1);
    grid->addWidget(makeDiskSpaceGroup(), 0, 1);
    grid->addWidget(makeScheduleGroup(runningAsRoot), 1, 1);
    grid->addWidget(makeExclusionsGroup(), 2, 0, 1, 2);
    grid->addWidget(makeCopyingGroup(), 3, 0, 1, 2);
    grid->setColumnStretch(0, 1);
    grid->setColumnStretch(1, 1);
    grid->setRowStretch(4, 1);

    auto* scroll = new QScrollArea;
    scroll->setObjectName("optionsScrollArea");
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);

    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(scroll, 1);
    layout->addWidget(buttons);
    fitToScreen(content, buttons);

    load();
    for (QCheckBox* box : {moveDeletedFiles_, moveChangedFiles_, purgeRemoved_, purgeChanged_, retentionEnabled_,
                           keepFreeSpace_, automationEnabled_, backUpWhenConnected_})
        connect(box, &QCheckBox::toggled, this, &FVOptionsPanel::updateEnabledState);
    connect(automationInterval_, &QComboBox::currentIndexChanged, this, &FVOptionsPanel::updateEnabledState);
    updateEnabledState();
}

QCheckBox* FVOptionsPanel::optionBox(bool FVOptions::*field) {
    const FVOptionRule& rule = FVOptionTable::rule(field);
    auto* box = new QCheckBox(localized(rule.label));
    box->setObjectName(rule.key);
    checkBoxes_.push_back({&rule, box});
    return box;
}

QSpinBox* FVOptionsPanel::numberBox(int64_t FVOptions::*field) {
    const FVOptionRule& rule = FVOptionTable::rule(field);
    auto* box = new QSpinBox;
    box->setObjectName(rule.key);
    box->setRange(int(std::clamp<int64_t>(rule.minimum, 0, INT_MAX)), int(std::clamp<int64_t>(rule.maximum, 0, INT_MAX)));
    if (rule.unit) box->setSuffix(" " + localized(rule.unit));
    numberBoxes_.push_back({&rule, box});
    return box;
}

QWidget* FVOptionsPanel::makeVersionsGroup() {
    auto* group = new QGroupBox(localized("optionsgroupversions"));
    auto* column = new QVBoxLayout(group);
    moveChangedFiles_ = optionBox(&FVOptions::moveChangedFiles);
    moveDeletedFiles_ = optionBox(&FVOptions::moveDeletedFiles);
    column->addWidget(moveChangedFiles_);
    column->addWidget(moveDeletedFiles_);
    column->addWidget(note(localized("optionsversionsnote")));

    retentionEnabled_ = optionBox(&FVOptions::retentionEnabled);
    column->addSpacing(6);
    column->addWidget(retentionEnabled_);
    auto* policy = new QFormLayout;
    policy->setContentsMargins(20, 0, 0, 0);
    policy->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    for (int64_t FVOptions::*field : {&FVOptions::retentionKeepAllDays, &FVOptions::retentionDailyWeeks,
                                      &FVOptions::retentionWeeklyMonths, &FVOptions::retentionMonthlyYears}) {
        retentionBoxes_.push_back(numberBox(field));
        policy->addRow(localized(FVOptionTable::rule(field).label), retentionBoxes_.back());
    }
    column->addLayout(policy);
    column->addWidget(note(localized("optionsretentionnote")));

    purgeChanged_ = optionBox(&FVOptions::purgeChangedArchive);
    purgeRemoved_ = optionBox(&FVOptions::purgeRemovedArchive);
    purgeChangedDays_ = numberBox(&FVOptions::purgeChangedArchiveDays);
    purgeRemovedDays_ = numberBox(&FVOptions::purgeRemovedArchiveDays);
    column->addSpacing(6);
    column->addLayout(row(purgeChanged_, purgeChangedDays_));
    column->addLayout(row(purgeRemoved_, purgeRemovedDays_));
    column->addStretch();
    return group;
}

QWidget* FVOptionsPanel::makeDiskSpaceGroup() {
    auto* group = new QGroupBox(localized("optionsgroupdiskspace"));
    auto* column = new QVBoxLayout(group);
    keepFreeSpace_ = optionBox(&FVOptions::keepFreeSpace);
    keepFreeSpaceMB_ = numberBox(&FVOptions::keepFreeSpaceMB);
    keepFreeSpaceMB_->setSpecialValueText(localized("optionsautomatic"));
    keepFreeSpaceMB_->setSingleStep(1024);
    QCheckBox* purgeOldest = optionBox(&FVOptions::purgeOldestForSpace);
    column->addLayout(row(keepFreeSpace_, keepFreeSpaceMB_));
    column->addWidget(purgeOldest);
    column->addWidget(note(localized("optionsdiskspacenote")));
    return group;
}

QWidget* FVOptionsPanel::makeScheduleGroup(bool runningAsRoot) {
    auto* group = new QGroupBox(localized("optionsgroupschedule"));
    auto* column = new QVBoxLayout(group);
    // Stored apart from the other boxes: with the time and the days it belongs to.
    const FVOptionRule& automation = FVOptionTable::rule(&FVOptions::automationEnabled);
    automationEnabled_ = new QCheckBox(localized(automation.label));
    automationEnabled_->setObjectName(automation.key);
    automationInterval_ = new QComboBox;
    automationInterval_->setObjectName("automationInterval");
    automationInterval_->addItem(localized("optionsdaily"), 0);
    automationInterval_->addItem(localized("optionsweekly"), 1);
    automationWeekday_ = new QComboBox;
    automationWeekday_->setObjectName("automationWeekday");
    // Monday first; the value is the job launcher's weekday number (0 Sunday ... 6 Saturday).
    for (int day = 1; day <= 7; ++day) automationWeekday_->addItem(QLocale().dayName(day), day % 7);
    automationTime_ = new FVTimeField;
    automationTime_->setObjectName("automationTime");
    auto* when = new QHBoxLayout;
    when->setContentsMargins(20, 0, 0, 0);
    when->addWidget(automationInterval_);
    when->addWidget(automationWeekday_);
    when->addWidget(new QLabel(localized("optionsat")));
    when->addWidget(automationTime_);
    when->addStretch();
    column->addWidget(automationEnabled_);
    column->addLayout(when);

    backUpWhenConnected_ = optionBox(&FVOptions::backUpWhenConnected);
    connectedInterval_ = numberBox(&FVOptions::connectedRunIntervalMinutes);
    connectedInterval_->setSpecialValueText(localized("optionseverytime"));
    connectedInterval_->setSingleStep(15);
    auto* interval = new QHBoxLayout;
    interval->setContentsMargins(20, 0, 0, 0);
    interval->addWidget(new QLabel(localized(FVOptionTable::rule(&FVOptions::connectedRunIntervalMinutes).label)));
    interval->addWidget(connectedInterval_);
    interval->addStretch();
    column->addWidget(backUpWhenConnected_);
    column->addLayout(interval);

    overdueDays_ = numberBox(&FVOptions::overdueDays);
    overdueDays_->setSpecialValueText(localized("optionsnever"));
    auto* overdueLine = new QHBoxLayout;
    overdueLine->addWidget(new QLabel(localized(FVOptionTable::rule(&FVOptions::overdueDays).label)));
    overdueLine->addWidget(overdueDays_);
    overdueLine->addStretch();
    column->addLayout(overdueLine);

    column->addWidget(optionBox(&FVOptions::automationVerifyMonthly));
    QLabel* description = note(localized(runningAsRoot ? "SuperUserAutomationNote" : "optionsautomationnote"));
    description->setObjectName("automationDescription");
    column->addWidget(description);
    column->addStretch();
    return group;
}

QWidget* FVOptionsPanel::makeExclusionsGroup() {
    auto* group = new QGroupBox(localized("optionsgroupexclusions"));
    auto* column = new QVBoxLayout(group);
    column->addWidget(new QLabel(localized("optionsexcludepatterns")));
    excludePatterns_ = new QPlainTextEdit;
    excludePatterns_->setObjectName(FVOptionKey::excludePatterns);
    excludePatterns_->setPlaceholderText(localized("optionsexcludepatternsplaceholder"));
    excludePatterns_->setTabChangesFocus(true);
    excludePatterns_->setFixedHeight(excludePatterns_->fontMetrics().lineSpacing() * 5 + 12);
    column->addWidget(excludePatterns_);
    excludeProblem_ = new QLabel;
    excludeProblem_->setObjectName("excludeProblem");
    excludeProblem_->setWordWrap(true);
    excludeProblem_->setStyleSheet("color: palette(highlight)");
    excludeProblem_->hide();
    column->addWidget(excludeProblem_);
    column->addWidget(optionBox(&FVOptions::excludeCacheFolders));
    column->addWidget(optionBox(&FVOptions::excludeNodumpItems));
    column->addWidget(note(localized("optionsexclusionsnote")));
    return group;
}

QWidget* FVOptionsPanel::makeCopyingGroup() {
    auto* group = new QGroupBox(localized("optionsgroupcopying"));
    auto* form = new QFormLayout(group);
    form->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    const FVOptionRule& placement = FVOptionTable::rule(&FVOptions::syncMode);
    syncMode_ = new QComboBox;
    syncMode_->setObjectName(placement.key);
    syncMode_->addItem(localized("optionssyncmodefolder"), 1);
    syncMode_->addItem(localized("optionssyncmoderebuild"), 0);
    form->addRow(localized(placement.label), syncMode_);
    form->addRow(localized(FVOptionTable::rule(&FVOptions::maxThreads).label), numberBox(&FVOptions::maxThreads));
    for (bool FVOptions::*field : {&FVOptions::ignoreFileFlagChanges, &FVOptions::disableACLClone,
                                   &FVOptions::preallocate, &FVOptions::excludeSymlinks,
                                   &FVOptions::performExtendedLogging})
        form->addRow(optionBox(field));
    hooks_ = note({});
    hooks_->setObjectName("hooks");
    hooks_->setTextFormat(Qt::PlainText);
    form->addRow(hooks_);
    return group;
}

// As large as the content where the screen allows it; on a smaller screen the content scrolls.
void FVOptionsPanel::fitToScreen(QWidget* content, QWidget* buttons) {
    const QScreen* screen = parentWidget() ? parentWidget()->screen() : QGuiApplication::primaryScreen();
    const QRect available = screen->availableGeometry();
    const QMargins margins = layout()->contentsMargins();
    const int scrollBar = style()->pixelMetric(QStyle::PM_ScrollBarExtent);
    const QSize wanted = content->sizeHint();
    const int width = wanted.width() + margins.left() + margins.right() + scrollBar;
    const int height = wanted.height() + buttons->sizeHint().height() + layout()->spacing() + margins.top() +
                       margins.bottom() + scrollBar;
    resize(std::min(width, available.width() * 9 / 10), std::min(height, available.height() * 9 / 10));
}

// As a run reads them: a value that cannot be used shows as the option's default.
void FVOptionsPanel::load() {
    const FVOptions options = FVOptionTable::read(*controller_.allOptions()).options;
    QStringList patterns;
    for (const FVExcludePattern& pattern : options.excludePatterns) patterns << QString::fromStdString(pattern.text());
    excludePatterns_->setPlainText(patterns.join('\n'));
    for (auto& [rule, box] : checkBoxes_) box->setChecked(options.*rule->flag);
    for (auto& [rule, box] : numberBoxes_)
        box->setValue(int(std::clamp<int64_t>(options.*rule->number, box->minimum(), box->maximum())));
    automationEnabled_->setChecked(options.automationEnabled);
    syncMode_->setCurrentIndex(options.syncMode != 0 ? 0 : 1);
    automationTime_->setTime(QTime(int(options.automationTimeHours), int(options.automationTimeMinutes)));
    automationInterval_->setCurrentIndex(options.automationIntervalSelection != 0 ? 1 : 0);
    QStringList hooks;
    for (const auto& [command, text] : {std::pair{&options.beforeHook, "optionshookbefore"},
                                        std::pair{&options.afterHook, "optionshookafter"}})
        if (!command->empty()) hooks << localizedFormat(text, *command);
    hooks_->setText(hooks.join('\n'));
    hooks_->setVisible(!hooks.isEmpty());
    if (controller_.allOptions()->contains(FVOptionTable::rule(&FVOptions::automationWeekdaySelection).key))
        automationWeekday_->setCurrentIndex(automationWeekday_->findData(int(options.automationWeekdaySelection % 7)));
}

void FVOptionsPanel::store() {
    PlistDict& options = *controller_.allOptions();
    auto setInteger = [&options](const FVOptionRule& rule, int64_t value) { options.set(rule.key, value); };
    for (auto& [rule, box] : checkBoxes_) {
        // Keys the user never touched stay absent, as before the sheet was opened.
        if (options.contains(rule->key) || box->isChecked()) setInteger(*rule, box->isChecked() ? 1 : 0);
    }
    for (auto& [rule, box] : numberBoxes_) setInteger(*rule, box->value());
    const FVOptionRule& automation = FVOptionTable::rule(&FVOptions::automationEnabled);
    if (options.contains(automation.key) || automationEnabled_->isChecked())
        setInteger(automation, automationEnabled_->isChecked() ? 1 : 0);
    setInteger(FVOptionTable::rule(&FVOptions::syncMode), syncMode_->currentData().toInt());
    setInteger(FVOptionTable::rule(&FVOptions::automationTimeHours), automationTime_->time().hour());
    setInteger(FVOptionTable::rule(&FVOptions::automationTimeMinutes), automationTime_->time().minute());
    const FVOptionRule& interval = FVOptionTable::rule(&FVOptions::automationIntervalSelection);
    if (automationEnabled_->isChecked() || options.contains(interval.key)) {
        setInteger(interval, automationInterval_->currentData().toInt());
        // A weekly schedule always names its day.
        setInteger(FVOptionTable::rule(&FVOptions::automationWeekdaySelection), automationWeekday_->currentData().toInt());
    }
}

void FVOptionsPanel::updateEnabledState() {
    purgeRemoved_->setEnabled(moveDeletedFiles_->isChecked());
    purgeRemovedDays_->setEnabled(moveDeletedFiles_->isChecked() && purgeRemoved_->isChecked());
    purgeChanged_->setEnabled(moveChangedFiles_->isChecked());
    purgeChangedDays_->setEnabled(moveChangedFiles_->isChecked() && purgeChanged_->isChecked());
    for (QSpinBox* box : retentionBoxes_) box->setEnabled(retentionEnabled_->isChecked());
    keepFreeSpaceMB_->setEnabled(keepFreeSpace_->isChecked());
    const bool automation = automationEnabled_->isChecked();
    automationInterval_->setEnabled(automation);
    automationTime_->setEnabled(automation);
    automationWeekday_->setEnabled(automation && automationInterval_->currentData().toInt() != 0);
    connectedInterval_->setEnabled(backUpWhenConnected_->isChecked());
    // Only runs that start by themselves can be missed.
    overdueDays_->setEnabled(automation || backUpWhenConnected_->isChecked());
}

void FVOptionsPanel::focusExclusions() {
    excludePatterns_->setFocus();
    excludePatterns_->moveCursor(QTextCursor::End);
    if (!excludePatterns_->toPlainText().isEmpty()) excludePatterns_->insertPlainText("\n");
    findChild<QScrollArea*>("optionsScrollArea")->ensureWidgetVisible(excludePatterns_);
}

bool FVOptionsPanel::storePatterns() {
    PlistDict& options = *controller_.allOptions();
    // A list stored by something else that this sheet cannot show is left as it is.
    std::vector<std::string> unusable;
    FVOptionTable::readPatterns(options, &unusable);
    const QByteArray text = excludePatterns_->toPlainText().toUtf8();
    if (!unusable.empty() && text.isEmpty()) return true;
    FVExcludePattern::Lines lines = FVExcludePattern::parseLines(std::string_view(text.constData(), size_t(text.size())));
    if (!lines.problems.empty()) {
        excludeProblem_->setText(localizedFormat("optionsexcludeproblem", lines.problems.front()));
        excludeProblem_->show();
        excludePatterns_->setFocus();
        return false;
    }
    excludeProblem_->hide();
    auto list = std::make_shared<PlistArray>();
    for (const FVExcludePattern& pattern : lines.patterns) list->emplace_back(pattern.text());
    if (list->empty()) options.remove(FVOptionKey::excludePatterns);
    else options.set(FVOptionKey::excludePatterns, PlistValue(list));
    return true;
}

void FVOptionsPanel::lockPlacement(const QString& why) {
    syncMode_->setEnabled(false);
    syncMode_->setToolTip(why);
}

void FVOptionsPanel::done(int result) {
    // A line that is no pattern keeps the sheet open, with the line named, until it is mended.
    if (!storePatterns()) return;
    store();
    QDialog::done(result);
}

}  // namespace ferrovane
