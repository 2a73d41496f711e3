#include "app/FVMainWindow.h"

#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVFocusRingStyle.h"
#include "app/FVDropZone.h"
#include "app/FVElidingLabel.h"
#include "app/FVOverdueBanner.h"
#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"
#include "app/FVSourceListModel.h"
#include "app/FVSourceListView.h"
#include "app/FVThinProgressBar.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenuBar>
#include <QPushButton>
#include <QStackedLayout>
#include <QToolButton>
#include <QVBoxLayout>

namespace ferrovane {

namespace {
QToolButton* smallButton(const QString& text, const QString& tip, const char* name) {
    auto* button = new QToolButton;
    button->setText(text);
    button->setToolTip(tip);
    button->setObjectName(name);
    button->setAutoRaise(false);
    button->setFixedSize(28, 26);
    return button;
}
}  // namespace

FVMainWindow::FVMainWindow(QWidget* parent) : QMainWindow(parent) {
    setObjectName("mainWindow");
    setWindowTitle("Ferrovane");
    setWindowIcon(QIcon::fromTheme("ferrovane"));
    FVFocusRingStyle::install();

    auto* central = new QWidget;
    auto* column = new QVBoxLayout(central);
    column->setContentsMargins(12, 10, 12, 8);
    column->setSpacing(6);
    overdueBanner_ = new FVOverdueBanner;
    column->addWidget(overdueBanner_);
    column->addLayout(makeDestinationBar());
    progressView_ = new FVThinProgressBar;
    progressView_->setObjectName("progressView");
    column->addWidget(progressView_);
    column->addWidget(makeListArea(), 1);
    column->addLayout(makeLineUnderList());
    scheduleLine_ = new QLabel;
    scheduleLine_->setObjectName("scheduleLine");
    scheduleLine_->setWordWrap(true);
    scheduleLine_->setForegroundRole(QPalette::PlaceholderText);
    column->addWidget(scheduleLine_);
    setCentralWidget(central);

    makeAddMenu();
    makeFileMenu();
    QMenu* help = menuBar()->addMenu(localized("menuhelp"));
    aboutAction_ = help->addAction(localized("menuabout"));
    aboutAction_->setMenuRole(QAction::AboutRole);

    // Tab goes along the destination bar, into the list, then along the line under it.
    const QList<QWidget*> chain{targetPopup_,   addTargetButton_, removeTargetButton_, optionsButton_,      searchButton_,
                                startButton_,   sourceList_,      addSourceButton_,    removeSourceButton_, showErrorsButton_};
    for (qsizetype i = 1; i < chain.size(); ++i) setTabOrder(chain[i - 1], chain[i]);
    FVScreenFit::resize(this, {1040, 600});
}

// The destination popup with its + and −, the line under it, and the run's buttons.
QLayout* FVMainWindow::makeDestinationBar() {
    auto* bar = new QHBoxLayout;
    destinationIcon_ = new QLabel;
    destinationIcon_->setFixedSize(32, 32);
    targetPopup_ = new FVDestinationPopup;
    targetPopup_->setObjectName("targetPopup");
    targetPopup_->setPlaceholderText(localized("nodestination"));
    targetPopup_->setMinimumContentsLength(12);
    targetPopup_->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    addTargetButton_ = smallButton("+", localized("adddestinationtip"), "addTargetButton");
    removeTargetButton_ = smallButton("−", localized("removedestinationtip"), "removeTargetButton");
    optionsButton_ = new QPushButton(localized("optionsbutton"));
    optionsButton_->setObjectName("optionsButton");
    searchButton_ = new QPushButton(localized("searchbutton"));
    searchButton_->setObjectName("searchButton");
    startButton_ = new QPushButton(localized("syncbutton"));
    startButton_->setObjectName("startButton");
    startButton_->setDefault(true);
    bar->addWidget(destinationIcon_);
    auto* destinationColumn = new QVBoxLayout;
    destinationColumn->setSpacing(1);
    auto* popupRow = new QHBoxLayout;
    popupRow->setSpacing(4);
    popupRow->addWidget(targetPopup_, 1);
    popupRow->addWidget(addTargetButton_);
    popupRow->addWidget(removeTargetButton_);
    destinationColumn->addLayout(popupRow);
    progressInfo_ = new QLabel;
    progressInfo_->setObjectName("progressInfo");
    progressInfo_->setForegroundRole(QPalette::PlaceholderText);
    destinationColumn->addWidget(progressInfo_);
    bar->addLayout(destinationColumn, 1);
    bar->addSpacing(12);
    bar->addWidget(optionsButton_);
    bar->addWidget(searchButton_);
    bar->addSpacing(8);
    bar->addWidget(startButton_);
    return bar;
}

// The list, its drop zone, and the cover view lying over both.
QWidget* FVMainWindow::makeListArea() {
    auto* listArea = new QWidget;
    listStack_ = new QStackedLayout(listArea);
    listStack_->setContentsMargins(0, 0, 0, 0);
    sourceList_ = new FVSourceListView;
    dropZone_ = new FVDropZone;
    listStack_->addWidget(sourceList_);
    listStack_->addWidget(dropZone_);
    coverView_ = new FVCoverView(listArea);
    coverView_->setMessage(localized("viewnobackupselected"));
    return listArea;
}

// + and − of the sources, the summary, and how the last run ended.
QLayout* FVMainWindow::makeLineUnderList() {
    auto* bottom = new QHBoxLayout;
    addSourceButton_ = smallButton("+", localized("addsourcetip"), "addSourceButton");
    removeSourceButton_ = smallButton("−", localized("removesourcetip"), "removeSourceButton");
    summaryLine_ = new QLabel;
    summaryLine_->setObjectName("summaryLine");
    summaryLine_->setForegroundRole(QPalette::PlaceholderText);
    lastRunLine_ = new FVElidingLabel;
    lastRunLine_->setObjectName("lastRunLine");
    lastRunLine_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    showErrorsButton_ = new QPushButton(localized("showerrorsbutton"));
    showErrorsButton_->setObjectName("showErrorsButton");
    showErrorsButton_->setVisible(false);
    bottom->addWidget(addSourceButton_);
    bottom->addWidget(removeSourceButton_);
    bottom->addSpacing(8);
    bottom->addWidget(summaryLine_, 1);
    bottom->addWidget(lastRunLine_);
    bottom->addWidget(showErrorsButton_);
    return bottom;
}

// "+" offers folders and files apart: one file dialog cannot choose both at once.
void FVMainWindow::makeAddMenu() {
    auto* addMenu = new QMenu(addSourceButton_);
    addFoldersAction_ = addMenu->addAction(localized("menuaddfolders"));
    addFoldersAction_->setObjectName("addFoldersAction");
    addFilesAction_ = addMenu->addAction(localized("menuaddfiles"));
    addFilesAction_->setObjectName("addFilesAction");
    // Names and patterns are typed, in the options' list of what is left out.
    excludeAction_ = addMenu->addAction(localized("menuexclude"));
    excludeAction_->setObjectName("excludeAction");
    addSourceButton_->setMenu(addMenu);
    addSourceButton_->setPopupMode(QToolButton::InstantPopup);
    addSourceButton_->setFixedWidth(40);
}

void FVMainWindow::makeFileMenu() {
    QMenu* file = menuBar()->addMenu(localized("menufile"));
    file->addAction(localized("menuadddestination"), addTargetButton_, &QToolButton::click);
    removeDestinationAction_ = file->addAction(localized("menuremovedestination"), removeTargetButton_, &QToolButton::click);
    removeDestinationAction_->setObjectName("removeDestinationAction");
    connect(targetPopup_, &QComboBox::currentIndexChanged, this, &FVMainWindow::nameDestinationToRemove);
    file->addAction(addFoldersAction_);
    file->addAction(addFilesAction_);
    file->addSeparator();
    backUpNowAction_ = file->addAction(localized("menubackupnow"));
    backUpNowAction_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_B));
    stopAction_ = file->addAction(localized("menustop"));
    stopAction_->setShortcuts({QKeySequence(Qt::Key_Escape), QKeySequence(Qt::CTRL | Qt::Key_Period)});
    file->addSeparator();
    file->addAction(localized("menuoptions"), optionsButton_, &QPushButton::click);
    QAction* search = file->addAction(localized("menusearch"), searchButton_, &QPushButton::click);
    search->setShortcut(QKeySequence::Find);
    browseAction_ = file->addAction(localized("menubrowse"));
    browseAction_->setObjectName("browseAction");
    verifyAction_ = file->addAction(localized("menuverify"));
    verifyAction_->setObjectName("verifyAction");
    showErrorsAction_ = file->addAction(localized("menushowerrors"));
    showErrorsAction_->setEnabled(false);
    connect(showErrorsButton_, &QPushButton::clicked, showErrorsAction_, &QAction::trigger);
    showLogAction_ = file->addAction(localized("menushowlog"));
    file->addSeparator();
    quitAction_ = file->addAction(localized("menuquit"));
    quitAction_->setShortcut(QKeySequence::Quit);
    connect(quitAction_, &QAction::triggered, this, &QWidget::close);
}

void FVMainWindow::nameDestinationToRemove() {
    const QString name = targetPopup_->currentText();
    removeDestinationAction_->setText(name.isEmpty() ? localized("menuremovedestination")
                                                     : localizedFormat("menuremovedestinationnamed",
                                                                       stdPath(QString(name).replace('&', "&&"))));
}

void FVMainWindow::setSourceModel(FVSourceListModel* model) {
    sourceList_->setModel(model);
    connect(model, &QAbstractItemModel::modelReset, this, &FVMainWindow::updateEmptyState);
    connect(model, &QAbstractItemModel::rowsInserted, this, &FVMainWindow::updateEmptyState);
    updateEmptyState();
}

void FVMainWindow::updateEmptyState() {
    bool empty = sourceList_->model()->rowCount() == 0;
    listStack_->setCurrentWidget(empty ? static_cast<QWidget*>(dropZone_) : sourceList_);
    removeSourceButton_->setEnabled(!empty && addSourceButton_->isEnabled());
    coverView_->raise();
}

void FVMainWindow::closeEvent(QCloseEvent* event) {
    if (closeHandler_ && !closeHandler_()) {
        event->ignore();
        return;
    }
    event->accept();
}

void FVMainWindow::changeEvent(QEvent* event) {
    if (event->type() == QEvent::ActivationChange && isActiveWindow()) emit becameActive();
    QMainWindow::changeEvent(event);
}

}  // namespace ferrovane
