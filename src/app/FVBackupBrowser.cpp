#include "app/FVBackupBrowser.h"

#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"
#include "app/FVRunTreeModel.h"
#include "engine/record/FVPointInTime.h"

#include <QDateTime>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QSplitter>
#include <QTreeView>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <set>

namespace ferrovane {

namespace {

enum RunColumn { DateColumn, FilesColumn, ChangesColumn, OutcomeColumn };

QString outcomeOf(const FVRunRecord& run) {
    if (!run.summary) return localized("browseoutcomeunreadable");
    switch (run.summary->outcome) {
    case FVManifestOutcome::Complete:
        return run.summary->errors == 0
                   ? localized("browseoutcomecomplete")
                   : QString::fromStdString(FVStrings::formatPlural("browseoutcomeerrors", (long long)run.summary->errors));
    case FVManifestOutcome::Stopped: return localized("browseoutcomestopped");
    case FVManifestOutcome::Failed: break;
    }
    return localized("browseoutcomefailed");
}

}  // namespace

FVBackupBrowser::FVBackupBrowser(QWidget* window, const std::string& destination)
    : QDialog(window), destination_(destination) {
    setObjectName("backupBrowser");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localizedFormat("browsetitle", destination));
    FVScreenFit::resize(this, {760, 560});

    runs_ = new QTreeWidget;
    runs_->setObjectName("browseRuns");
    runs_->setRootIsDecorated(false);
    runs_->setUniformRowHeights(true);
    runs_->setHeaderLabels({localized("browsecolumnrun"), localized("browsecolumnfiles"),
                            localized("browsecolumnchanges"), localized("browsecolumnoutcome")});
    runs_->header()->setSectionResizeMode(DateColumn, QHeaderView::Stretch);
    runs_->header()->setStretchLastSection(false);
    for (int column : {FilesColumn, ChangesColumn, OutcomeColumn})
        runs_->header()->setSectionResizeMode(column, QHeaderView::ResizeToContents);

    tree_ = new QTreeView;
    tree_->setObjectName("browseTree");
    tree_->setUniformRowHeights(true);
    tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    tree_->setTextElideMode(Qt::ElideMiddle);

    auto* splitter = new QSplitter(Qt::Vertical);
    splitter->addWidget(runs_);
    splitter->addWidget(tree_);
    splitter->setStretchFactor(1, 1);
    splitter->setSizes({170, 330});

    status_ = new QLabel;
    status_->setObjectName("browseStatus");
    status_->setWordWrap(true);
    status_->setForegroundRole(QPalette::PlaceholderText);
    restore_ = new QPushButton(localized("searchrestore"));
    restore_->setObjectName("browseRestore");
    restore_->setEnabled(false);
    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(status_, 1);
    bottom->addWidget(restore_);
    bottom->addWidget(buttons);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(splitter, 1);
    layout->addLayout(bottom);

    connect(runs_, &QTreeWidget::currentItemChanged, this, &FVBackupBrowser::showRun);
    connect(restore_, &QPushButton::clicked, this, &FVBackupBrowser::restoreRequested);
    connect(tree_, &QTreeView::doubleClicked, this, [this](const QModelIndex& index) {
        // A folder opens on a double click; anything else is restored.
        if (model_ && !model_->isFolder(index)) emit restoreRequested();
    });
    listRuns();
}

void FVBackupBrowser::listRuns() {
    records_ = FVRunRecords(destination_).list();
    if (records_.empty()) {
        status_->setText(localized("browsenoruns"));
        return;
    }
    QLocale locale;
    for (size_t k = records_.size(); k-- > 0;) {
        const FVRunRecord& run = records_[k];
        QString files, changes;
        if (run.summary) {
            files = locale.toString(qulonglong(run.summary->files));
            changes = locale.toString(qulonglong(run.summary->copied + run.summary->removed));
        }
        auto* item = new QTreeWidgetItem(runs_, {locale.toString(QDateTime::fromSecsSinceEpoch(run.time), QLocale::ShortFormat),
                                                 files, changes, outcomeOf(run)});
        item->setData(DateColumn, Qt::UserRole, qulonglong(k));
        item->setToolTip(DateColumn, QString::fromStdString(run.stamp));
        item->setToolTip(OutcomeColumn, QString::fromStdString(run.problem));
        for (int column : {FilesColumn, ChangesColumn}) item->setTextAlignment(column, Qt::AlignRight | Qt::AlignVCenter);
        if (!run.complete())
            for (int column : {DateColumn, FilesColumn, ChangesColumn, OutcomeColumn})
                item->setForeground(column, runs_->palette().brush(QPalette::PlaceholderText));
    }
    runs_->setCurrentItem(runs_->topLevelItem(0));
}

const FVRunRecord* FVBackupBrowser::shownRun() const { return model_ ? &model_->run().run() : nullptr; }

void FVBackupBrowser::showRun() {
    tree_->setModel(nullptr);
    model_.reset();
    restore_->setEnabled(false);
    QTreeWidgetItem* item = runs_->currentItem();
    if (!item) return;
    const FVRunRecord& run = records_[item->data(DateColumn, Qt::UserRole).toULongLong()];
    if (!run.complete()) {
        status_->setText(run.summary ? localized("browsenotpointintime") : QString::fromStdString(run.problem));
        return;
    }
    std::string problem;
    auto pointInTime = FVPointInTime::open(destination_, run, &problem);
    if (!pointInTime) {
        status_->setText(QString::fromStdString(problem));
        return;
    }
    status_->setText(localized("browsereading"));
    model_ = std::make_unique<FVRunTreeModel>(std::make_shared<const FVPointInTime>(std::move(*pointInTime)));
    connect(model_.get(), &FVRunTreeModel::folderLoaded, this, [this](const QString& problem) {
        status_->setText(!problem.isEmpty() ? problem : model_->isIdle() ? QString() : localized("browsereading"));
    });
    tree_->setModel(model_.get());
    tree_->header()->setSectionResizeMode(FVRunTreeModel::NameColumn, QHeaderView::Stretch);
    tree_->header()->setStretchLastSection(false);
    for (int column : {FVRunTreeModel::SizeColumn, FVRunTreeModel::ModifiedColumn})
        tree_->header()->setSectionResizeMode(column, QHeaderView::ResizeToContents);
    connect(tree_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &FVBackupBrowser::selectionChanged);
    model_->fetchMore({});
}

void FVBackupBrowser::selectionChanged() { restore_->setEnabled(!selectedPaths().empty()); }

std::vector<std::string> FVBackupBrowser::selectedPaths() const {
    std::set<std::string> chosen;
    if (model_)
        for (const QModelIndex& index : tree_->selectionModel()->selectedRows()) chosen.insert(model_->mirrorPath(index));
    // A folder brings back what is inside it already.
    std::vector<std::string> paths;
    for (const std::string& path : chosen) {
        bool inside = false;
        for (size_t slash = path.find('/', 1); slash != std::string::npos && !inside; slash = path.find('/', slash + 1))
            inside = chosen.count(path.substr(0, slash)) > 0;
        if (!inside) paths.push_back(path);
    }
    return paths;
}

}  // namespace ferrovane
