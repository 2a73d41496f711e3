#pragma once
// The main window's widgets: the destination bar, the source list with its drop zone and the
// cover view over it, the summary lines, the schedule line and the overdue banner. The behaviour
// behind them is AppController's.

#include <QMainWindow>

#include <functional>

class QAction;
class QComboBox;
class QLabel;
class QLayout;
class QPushButton;
class QStackedLayout;
class QToolButton;

namespace ferrovane {

class FVCoverView;
class FVDestinationPopup;
class FVDropZone;
class FVOverdueBanner;
class FVSourceListModel;
class FVSourceListView;
class FVThinProgressBar;

class FVMainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit FVMainWindow(QWidget* parent = nullptr);

    void setSourceModel(FVSourceListModel* model);
    // Asked before the window closes; false keeps it open.
    void setCloseHandler(std::function<bool()> handler) { closeHandler_ = std::move(handler); }

    FVDestinationPopup* targetPopup() const { return targetPopup_; }
    QLabel* destinationIcon() const { return destinationIcon_; }
    QToolButton* addTargetButton() const { return addTargetButton_; }
    QToolButton* removeTargetButton() const { return removeTargetButton_; }
    QPushButton* startButton() const { return startButton_; }
    QPushButton* optionsButton() const { return optionsButton_; }
    QPushButton* searchButton() const { return searchButton_; }
    QLabel* progressInfo() const { return progressInfo_; }
    FVThinProgressBar* progressView() const { return progressView_; }
    FVCoverView* coverView() const { return coverView_; }
    FVSourceListView* sourceListView() const { return sourceList_; }
    FVDropZone* dropZone() const { return dropZone_; }
    QToolButton* addSourceButton() const { return addSourceButton_; }
    QToolButton* removeSourceButton() const { return removeSourceButton_; }
    QLabel* summaryLine() const { return summaryLine_; }
    QLabel* lastRunLine() const { return lastRunLine_; }
    QLabel* scheduleLine() const { return scheduleLine_; }
    FVOverdueBanner* overdueBanner() const { return overdueBanner_; }
    QPushButton* showErrorsButton() const { return showErrorsButton_; }
    QAction* addFoldersAction() const { return addFoldersAction_; }
    QAction* addFilesAction() const { return addFilesAction_; }
    QAction* excludeAction() const { return excludeAction_; }
    QAction* backUpNowAction() const { return backUpNowAction_; }
    QAction* stopAction() const { return stopAction_; }
    QAction* showErrorsAction() const { return showErrorsAction_; }
    QAction* browseAction() const { return browseAction_; }
    QAction* verifyAction() const { return verifyAction_; }
    QAction* aboutAction() const { return aboutAction_; }
    QAction* showLogAction() const { return showLogAction_; }
    QAction* quitAction() const { return quitAction_; }
    QAction* removeDestinationAction() const { return removeDestinationAction_; }

signals:
    void becameActive();

protected:
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QLayout* makeDestinationBar();
    QWidget* makeListArea();
    QLayout* makeLineUnderList();
    void makeAddMenu();
    void makeFileMenu();
    void updateEmptyState();
    // The menu item says which destination it removes.
    void nameDestinationToRemove();

    std::function<bool()> closeHandler_;
    FVDestinationPopup* targetPopup_;
    QLabel* destinationIcon_;
    QToolButton* addTargetButton_;
    QToolButton* removeTargetButton_;
    QPushButton* startButton_;
    QPushButton* optionsButton_;
    QPushButton* searchButton_;
    QLabel* progressInfo_;
    FVThinProgressBar* progressView_;
    QStackedLayout* listStack_;
    FVSourceListView* sourceList_;
    FVDropZone* dropZone_;
    FVCoverView* coverView_;
    QToolButton* addSourceButton_;
    QToolButton* removeSourceButton_;
    QLabel* summaryLine_;
    QLabel* lastRunLine_;
    QLabel* scheduleLine_;
    FVOverdueBanner* overdueBanner_;
    QPushButton* showErrorsButton_;
    QAction* addFoldersAction_;
    QAction* addFilesAction_;
    QAction* excludeAction_;
    QAction* backUpNowAction_;
    QAction* stopAction_;
    QAction* showErrorsAction_;
    QAction* browseAction_;
    QAction* verifyAction_;
    QAction* aboutAction_;
    QAction* showLogAction_;
    QAction* quitAction_;
    QAction* removeDestinationAction_;
};

}  // namespace ferrovane
