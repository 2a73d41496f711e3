#include "app/FVSourceEditor.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVFileDialog.h"
#include "app/FVFileReveal.h"
#include "app/FVMainWindow.h"
#include "app/FVQtStrings.h"
#include "app/FVRunStartChecks.h"
#include "app/FVSourceListView.h"
#include "backupset/BackupSetController.h"
#include "fs/FVText.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QPointer>

#include <algorithm>
#include <utility>

namespace ferrovane {

namespace {

// Set on a source whose folder was emptied on purpose: the next run may empty its mirror.
constexpr const char* kEmptySourceConfirmedKey = "emptySourceConfirmed";

}  // namespace

FVSourceEditor::FVSourceEditor(FVMainWindow* window, BackupSetController& sources, FVOptionsPanelController& options,
                               FVRunStartChecks& startChecks, Host host, QObject* parent)
    : QObject(parent), window_(window), sources_(sources), options_(options), startChecks_(startChecks),
      host_(std::move(host)) {}

void FVSourceEditor::addFolders() {
    QFileDialog* panel = FVFileDialog::make(window_, localized("addfolderstitle"), "addFoldersDialog", QFileDialog::Directory,
                                            localized("addsourcebutton"));
    // Several folders at once: the dialog's own views allow it once asked to.
    for (QAbstractItemView* view : panel->findChildren<QAbstractItemView*>())
        if (view->objectName() == "listView" || view->objectName() == "treeView")
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    connect(panel, &QFileDialog::filesSelected, this, [this](const QStringList& paths) { addPaths(paths, 0); });
    panel->open();
}

void FVSourceEditor::addFiles() {
    QFileDialog* panel = FVFileDialog::make(window_, localized("addfilestitle"), "addFilesDialog", QFileDialog::ExistingFiles,
                                            localized("addsourcebutton"));
    connect(panel, &QFileDialog::filesSelected, this, [this](const QStringList& paths) { addPaths(paths, 0); });
    panel->open();
}

void FVSourceEditor::addPaths(const QStringList& paths, int index) {
    if (host_.refusedWhileAway()) return;
    const std::string& destination = host_.destination();
    std::vector<std::string> items;
    for (const QString& path : paths) items.push_back(FVText::standardizedPath(stdPath(QFileInfo(path).absoluteFilePath())));
    std::vector<FVSourceItemPtr> wouldBe = sources_.arrangedObjects();
    for (const std::string& item : items) wouldBe.push_back(FVSourceItem::make(item, FVSourceMode::Backup));
    if (!startChecks_.acceptsLayout(destination, options_.options(), wouldBe)) return;
    if (sources_.addBackupPaths(items, size_t(std::max(index, 0))) < items.size()) QApplication::beep();
    // Added all the same: the run leaves the destination out of that source's walk.
    for (const std::string& item : items) {
        if (destination.empty() || !FVText::isPathWithin(destination, item)) continue;
        QMessageBox* box = FVAlert::show(window_, "sourcecontainsdestination", "sourcecontainsdestinationlong",
                                         QMessageBox::Warning);
        box->setInformativeText(localizedFormat("sourcecontainsdestinationlong", item));
        break;
    }
}

void FVSourceEditor::addWhenIdle(const QStringList& paths) {
    pendingPaths_ << paths;
    addPendingPaths();
}

void FVSourceEditor::addPendingPaths() {
    if (pendingPaths_.isEmpty() || !window_->coverView()->isFullyHidden() || host_.runIsGoing()) return;
    addPaths(std::exchange(pendingPaths_, {}), 0);
}

void FVSourceEditor::removeSelected() {
    if (host_.refusedWhileAway()) return;
    QList<int> rows = window_->sourceListView()->selectedRows();
    std::vector<size_t> indexes(rows.begin(), rows.end());
    if (!indexes.empty()) sources_.removeItemsAtIndexes(indexes);
}

void FVSourceEditor::revealSelected() {
    QList<int> rows = window_->sourceListView()->selectedRows();
    if (rows.isEmpty()) return;
    std::vector<FVSourceItemPtr> items = sources_.arrangedObjects();
    if (size_t(rows.first()) >= items.size()) return;
    QPointer<FVMainWindow> window = window_;
    FVFileReveal::revealPath(qPath(items[size_t(rows.first())]->sourcePath()), [window] {
        if (window) FVAlert::show(window, "revealfailed", "revealfailedlong");
    });
}

void FVSourceEditor::confirmEmptiedSource(const QString& sourcePath) {
    if (host_.refusedWhileAway()) return;
    FVSourceItemPtr source;
    for (const FVSourceItemPtr& item : sources_.arrangedObjects())
        if (qPath(item->sourcePath()) == sourcePath) source = item;
    if (!source || host_.runIsGoing()) return;
    QMessageBox* box = FVAlert::ask(window_, "confirmempty", "confirmemptylong", "cancelbuttontitle", "confirmemptyaction",
                                    [this, source](bool confirmed) {
                                        if (!confirmed || host_.runIsGoing()) return;
                                        source->setValue(kEmptySourceConfirmedKey, true);
                                        host_.writeSettings();
                                    });
    box->setText(localizedFormat("confirmempty", FVText::lastPathComponent(source->sourcePath())));
    box->setInformativeText(localizedFormat("confirmemptylong", source->sourcePath()));
}

}  // namespace ferrovane
