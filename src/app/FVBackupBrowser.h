#pragma once
// Browse Backups: the runs a destination recorded, newest first, with their counts and how each
// ended, and the files of the chosen complete run as a tree; Restore… asks for what is selected.

#include "engine/record/FVRunRecords.h"

#include <QDialog>

#include <memory>
#include <string>
#include <vector>

class QLabel;
class QPushButton;
class QTreeView;
class QTreeWidget;

namespace ferrovane {

class FVRunTreeModel;

class FVBackupBrowser : public QDialog {
    Q_OBJECT
public:
    FVBackupBrowser(QWidget* window, const std::string& destination);

    QTreeWidget* runList() const { return runs_; }
    QTreeView* fileTree() const { return tree_; }
    // The model of the chosen run's files; nothing when the chosen run is no point in time.
    FVRunTreeModel* treeModel() const { return model_.get(); }
    // The run whose files are shown, and the mirror paths selected in it (none inside another).
    const FVRunRecord* shownRun() const;
    std::vector<std::string> selectedPaths() const;

signals:
    void restoreRequested();

private:
    void listRuns();
    void showRun();
    void selectionChanged();

    std::string destination_;
    std::vector<FVRunRecord> records_;
    std::unique_ptr<FVRunTreeModel> model_;
    QTreeWidget* runs_;
    QTreeView* tree_;
    QLabel* status_;
    QPushButton* restore_;
};

}  // namespace ferrovane
