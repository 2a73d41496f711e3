#pragma once
// Show Log…: the open destination's recent runs from the run log, one entry each (when, how it
// ended, what it changed), and the chosen run's lines with its errors first; the search field
// keeps the lines that contain its text.

#include "engine/run/FVRunLogReader.h"

#include <QDialog>

#include <vector>

class QLabel;
class QLineEdit;
class QListWidget;

namespace ferrovane {

class FVLogViewer : public QDialog {
    Q_OBJECT
public:
    // How many of the destination's runs are listed.
    static constexpr size_t kRunsShown = 30;

    FVLogViewer(QWidget* window, const QString& destination, const QString& logPath);

    QListWidget* runList() const { return runList_; }
    QListWidget* lineList() const { return lineList_; }
    QLineEdit* searchField() const { return searchField_; }

private:
    static QString describe(const FVLoggedRun& run);
    void showLines();

    std::vector<FVLoggedRun> runs_;
    QLineEdit* searchField_;
    QListWidget* runList_;
    QListWidget* lineList_;
    QLabel* note_;
};

}  // namespace ferrovane
