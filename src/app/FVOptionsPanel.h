#pragma once
// The options sheet: the run options, the archive ages and the schedule of the open destination,
// edited in FVOptionsPanelController's live dictionary when the sheet is closed.

#include <QDialog>

#include <utility>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QSpinBox;
class QTimeEdit;

namespace ferrovane {

class FVOptionsPanelController;

class FVOptionsPanel : public QDialog {
    Q_OBJECT
public:
    FVOptionsPanel(QWidget* window, FVOptionsPanelController& controller, bool runningAsRoot);
    void done(int result) override;

private:
    void load();
    void store();
    void updateEnabledState();

    FVOptionsPanelController& controller_;
    std::vector<std::pair<const char*, QCheckBox*>> checkBoxes_;
    QComboBox* syncMode_;
    QSpinBox* maxThreads_;
    QCheckBox* moveDeletedFiles_;
    QCheckBox* moveChangedFiles_;
    QCheckBox* purgeRemoved_;
    QCheckBox* purgeChanged_;
    QSpinBox* purgeRemovedDays_;
    QSpinBox* purgeChangedDays_;
    QCheckBox* automationEnabled_;
    QTimeEdit* automationTime_;
    QComboBox* automationInterval_;
    QComboBox* automationWeekday_;
    QLabel* automationDescription_;
};

}  // namespace ferrovane
