#include "app/FVDestinationSearchSheet.h"

#include "app/FVAlert.h"
#include "app/FVFileReveal.h"
#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"

#include <QPointer>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QScrollBar>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <algorithm>

namespace ferrovane {

namespace {

enum Column { NameColumn, LocationColumn, VersionsColumn };

QTreeWidget* makeResultList() {
    auto* results = new QTreeWidget;
    results->setObjectName("searchResults");
    results->setRootIsDecorated(false);
    results->setHeaderLabels({localized("columnname"), localized("searchcolumnlocation"), localized("searchcolumnversions")});
    results->header()->setSectionResizeMode(NameColumn, QHeaderView::Interactive);
    results->header()->setSectionResizeMode(LocationColumn, QHeaderView::Stretch);
    results->header()->setSectionResizeMode(VersionsColumn, QHeaderView::ResizeToContents);
    results->setColumnWidth(NameColumn, 220);
    results->setUniformRowHeights(true);
    results->setTextElideMode(Qt::ElideMiddle);
    return results;
}

}  // namespace

FVDestinationSearchSheet::FVDestinationSearchSheet(QWidget* window, FVMainQueue& mainQueue, const QString& destination)
    : QDialog(window), search_(FVDestinationSearch::create(mainQueue)), destination_(destination) {
    setObjectName("searchSheet");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized("searchtitle"));
    FVScreenFit::resize(this, {720, 440});
    search_->setObserver(this);
    search_->setSearchFolderPath(stdPath(destination));

    field_ = new QLineEdit;
    field_->setObjectName("searchField");
    field_->setPlaceholderText(localized("searchplaceholder"));
    field_->setClearButtonEnabled(true);
    spinner_ = new QProgressBar;
    spinner_->setRange(0, 0);  // busy
    spinner_->setFixedWidth(80);
    spinner_->setTextVisible(false);
    spinner_->hide();
    auto* top = new QHBoxLayout;
    top->addWidget(field_, 1);
    top->addWidget(spinner_);

    results_ = makeResultList();

    versions_ = new QComboBox;
    versions_->setObjectName("searchVersions");
    versions_->setEnabled(false);
    reveal_ = new QPushButton(localized("searchreveal"));
    reveal_->setObjectName("searchReveal");
    reveal_->setEnabled(false);
    restore_ = new QPushButton(localized("searchrestore"));
    restore_->setObjectName("searchRestore");
    restore_->setEnabled(false);
    status_ = new QLabel;
    status_->setForegroundRole(QPalette::PlaceholderText);
    auto* chooser = new QHBoxLayout;
    chooser->addWidget(new QLabel(localized("searchversion")));
    chooser->addWidget(versions_, 1);
    chooser->addWidget(reveal_);
    chooser->addWidget(restore_);

    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(status_, 1);
    bottom->addWidget(buttons);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(results_, 1);
    layout->addLayout(chooser);
    layout->addLayout(bottom);
    connectControls();
}

void FVDestinationSearchSheet::connectControls() {
    connect(field_, &QLineEdit::textChanged, this, [this](const QString& text) {
        chosenVersions_.clear();
        userChoseRow_ = false;
        search_->searchFieldChanged(text.toStdString());
    });
    connect(results_, &QTreeWidget::currentItemChanged, this, [this] {
        userChoseRow_ = true;  // the list's own rebuilds block this signal
        currentRowChanged();
    });
    connect(results_, &QTreeWidget::itemDoubleClicked, this, &FVDestinationSearchSheet::revealCurrent);
    connect(versions_, &QComboBox::activated, this, &FVDestinationSearchSheet::versionChosen);
    connect(reveal_, &QPushButton::clicked, this, &FVDestinationSearchSheet::revealCurrent);
    connect(restore_, &QPushButton::clicked, this, [this] {
        QString path = selectedVersionPath(results_->currentIndex().row());
        if (!path.isEmpty()) emit restoreRequested(path);
    });
}

FVDestinationSearchSheet::~FVDestinationSearchSheet() {
    // Walks still running report to the search object, which outlives this sheet.
    search_->setObserver(nullptr);
    search_->closePanel();
}

const FVSearchResult* FVDestinationSearchSheet::resultAt(int row) const {
    const auto& results = search_->searchResults();
    return row >= 0 && size_t(row) < results.size() ? &results[size_t(row)] : nullptr;
}

int FVDestinationSearchSheet::chosenIndex(const FVSearchResult& result) const {
    QString chosen = chosenVersions_.value(qPath(result.path));
    for (size_t k = 0; k < result.fullpaths.size(); ++k)
        if (qPath(result.fullpaths[k]) == chosen) return int(k);
    return int(std::min(result.selectedIndex, result.fullpaths.size() - 1));
}

QString FVDestinationSearchSheet::selectedVersionPath(int row) const {
    const FVSearchResult* result = resultAt(row);
    if (!result || result->fullpaths.empty()) return {};
    return qPath(result->fullpaths[size_t(chosenIndex(*result))]);
}

void FVDestinationSearchSheet::searchResultsDidChange() {
    // Keep the row the user is on while matches keep arriving.
    QString current = userChoseRow_ && results_->currentItem()
                          ? results_->currentItem()->data(NameColumn, Qt::UserRole).toString()
                          : QString();
    const int scrolled = results_->verticalScrollBar()->value();
    QSignalBlocker blocker(results_);
    results_->clear();
    QFileIconProvider icons;
    QTreeWidgetItem* reselect = nullptr;
    QString prefix = destination_.endsWith('/') ? destination_ : destination_ + '/';
    for (const FVSearchResult& result : search_->searchResults()) {
        QString path = qPath(result.path);
        QFileInfo info(path);
        QString location = info.path().startsWith(prefix) ? info.path().mid(prefix.size()) : info.path();
        if (info.path() + '/' == prefix) location = "/";
        // Without a copy in the mirror, every version is an archived one: the file was removed.
        const bool removed = std::none_of(result.fullpaths.begin(), result.fullpaths.end(),
                                          [&](const std::string& version) { return version == result.path; });
        const long long count = (long long)result.timestamps.size();
        QString versions = result.timestamps.empty() ? QString()
                           : removed ? QString::fromStdString(FVStrings::formatPlural("searchremovedversions", count, result.timestamps.front()))
                           : count == 1 ? qPath(result.timestamps.front())
                                        : localizedFormat("searchversioncount", count, result.timestamps.front());
        auto* item = new QTreeWidgetItem(results_, {info.fileName(), location, versions});
        if (removed)
            for (int column : {NameColumn, LocationColumn, VersionsColumn})
                item->setForeground(column, results_->palette().brush(QPalette::PlaceholderText));
        item->setData(NameColumn, Qt::UserRole, path);
        item->setToolTip(NameColumn, path);
        if (!result.fullpaths.empty()) item->setIcon(NameColumn, icons.icon(QFileInfo(qPath(result.fullpaths.front()))));
        if (path == current) reselect = item;
    }
    if (!reselect) reselect = results_->topLevelItem(0);
    if (reselect) results_->setCurrentItem(reselect);
    // Where the user had scrolled to, not where the current row would bring the list.
    results_->verticalScrollBar()->setValue(scrolled);
    blocker.unblock();
    currentRowChanged();
    size_t files = search_->searchResults().size();
    status_->setText(search_->matchPaths().empty() ? QString()
                     : search_->reachedMatchLimit() ? localizedFormat("searchlimitreached", search_->matchPaths().size())
                                                    : QString::fromStdString(FVStrings::formatPlural("searchfilecount", (long long)files)));
}

void FVDestinationSearchSheet::searchProgressDidChange(bool searching) {
    spinner_->setVisible(searching);
    if (!searching) searchResultsDidChange();  // the limit note appears only once the walk has stopped
}

void FVDestinationSearchSheet::currentRowChanged() {
    versions_->clear();
    const FVSearchResult* result = resultAt(results_->currentIndex().row());
    versions_->setEnabled(result && result->fullpaths.size() > 1);
    reveal_->setEnabled(result && !result->fullpaths.empty());
    restore_->setEnabled(result && !result->fullpaths.empty());
    if (!result) return;
    for (size_t i = 0; i < result->fullpaths.size(); ++i) {
        QString stamp = i < result->timestamps.size() ? qPath(result->timestamps[i]) : QString();
        bool archived = qPath(result->fullpaths[i]) != qPath(result->path);
        versions_->addItem(archived ? localizedFormat("searcharchivedversion", stamp.toStdString())
                                    : localizedFormat("searchcurrentversion", stamp.toStdString()));
    }
    versions_->setCurrentIndex(chosenIndex(*result));
}

void FVDestinationSearchSheet::versionChosen(int versionIndex) {
    const FVSearchResult* result = resultAt(results_->currentIndex().row());
    if (result && versionIndex >= 0 && size_t(versionIndex) < result->fullpaths.size())
        chosenVersions_.insert(qPath(result->path), qPath(result->fullpaths[size_t(versionIndex)]));
}

void FVDestinationSearchSheet::revealCurrent() {
    QString path = selectedVersionPath(results_->currentIndex().row());
    if (path.isEmpty()) return;
    QPointer<QWidget> sheet = this;
    FVFileReveal::revealPath(path, [sheet] {
        if (sheet) FVAlert::show(sheet, "revealfailed", "revealfailedlong");
    });
}

}  // namespace ferrovane
