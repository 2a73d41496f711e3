#pragma once
// The options sheet of the open destination, grouped by what each setting keeps: the versions a
// run keeps and for how long, the room it leaves on the disk, when runs start by themselves, and
// how it copies, and what it leaves out. Edits FVOptionsPanelController's live dictionary when the sheet is closed. The
// content scrolls, so that the sheet fits a small screen.

#include "engine/config/FVOptions.h"

#include <QDialog>

#include <utility>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QPlainTextEdit;
class QSpinBox;
class QTimeEdit;
class QWidget;

namespace ferrovane {

class FVOptionsPanelController;

class FVOptionsPanel : public QDialog {
    Q_OBJECT
public:
    FVOptionsPanel(QWidget* window, FVOptionsPanelController& controller, bool runningAsRoot);
    void done(int result) override;
    // Shows the list of names and patterns left out, ready for typing at its end.
    void focusExclusions();
    // The placement stays as it is while mirrors are in place (they would be left behind); the
    // reason shows on the choice.
    void lockPlacement(const QString& why);

private:
    QWidget* makeCopyingGroup();
    QWidget* makeVersionsGroup();
    QWidget* makeDiskSpaceGroup();
    QWidget* makeScheduleGroup(bool runningAsRoot);
    QWidget* makeExclusionsGroup();
    // Stores the patterns; false (with the reason shown) when a line is no pattern.
    bool storePatterns();
    // A check box for a yes-or-no option, with its text from the options table.
    QCheckBox* optionBox(bool FVOptions::*field);
    // A box for a number option, with the option's own limits and unit.
    QSpinBox* numberBox(int64_t FVOptions::*field);
    void fitToScreen(QWidget* content, QWidget* buttons);
    void load();
    void store();
    void updateEnabledState();

    FVOptionsPanelController& controller_;
    std::vector<std::pair<const FVOptionRule*, QCheckBox*>> checkBoxes_;
    std::vector<std::pair<const FVOptionRule*, QSpinBox*>> numberBoxes_;
    QComboBox* syncMode_;
    // Says which hooks run around each run; set on the command line, shown here only.
    QLabel* hooks_;
    QCheckBox* moveDeletedFiles_;
    QCheckBox* moveChangedFiles_;
    QCheckBox* purgeRemoved_;
    QCheckBox* purgeChanged_;
    QSpinBox* purgeRemovedDays_;
    QSpinBox* purgeChangedDays_;
    QCheckBox* retentionEnabled_;
    std::vector<QSpinBox*> retentionBoxes_;
    QCheckBox* keepFreeSpace_;
    QSpinBox* keepFreeSpaceMB_;
    QCheckBox* automationEnabled_;
    QTimeEdit* automationTime_;
    QComboBox* automationInterval_;
    QComboBox* automationWeekday_;
    QCheckBox* backUpWhenConnected_;
    QSpinBox* connectedInterval_;
    QSpinBox* overdueDays_;
    QPlainTextEdit* excludePatterns_;
    QLabel* excludeProblem_;
};

}  // namespace ferrovane
