#include "app/FVLogViewer.h"

#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"
#include "engine/run/FVStrings.h"

#include <QDesktopServices>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSplitter>
#include <QUrl>
#include <QVBoxLayout>

namespace ferrovane {

FVLogViewer::FVLogViewer(QWidget* window, const QString& destination, const QString& logPath) : QDialog(window) {
    setObjectName("logViewer");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(localized("logviewertitle"));

    searchField_ = new QLineEdit;
    searchField_->setObjectName("logSearch");
    searchField_->setPlaceholderText(localized("logviewersearch"));
    searchField_->setClearButtonEnabled(true);
    runList_ = new QListWidget;
    runList_->setObjectName("logRuns");
    lineList_ = new QListWidget;
    lineList_->setObjectName("logLines");
    lineList_->setWordWrap(true);
    lineList_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    auto* split = new QSplitter;
    split->addWidget(runList_);
    split->addWidget(lineList_);
    split->setStretchFactor(1, 2);
    note_ = new QLabel;
    note_->setObjectName("logNote");
    note_->setWordWrap(true);
    note_->setForegroundRole(QPalette::PlaceholderText);

    auto* buttons = new QDialogButtonBox;
    QPushButton* openFile = buttons->addButton(localized("logvieweropenfile"), QDialogButtonBox::ActionRole);
    buttons->addButton(localized("closebutton"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(openFile, &QPushButton::clicked, this, [logPath] { QDesktopServices::openUrl(QUrl::fromLocalFile(logPath)); });

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(searchField_);
    layout->addWidget(split, 1);
    layout->addWidget(note_);
    layout->addWidget(buttons);
    FVScreenFit::resize(this, {900, 520});

    std::string problem;
    runs_ = FVRunLogReader::recentRuns(stdPath(logPath), stdPath(destination), kRunsShown, &problem);
    for (const FVLoggedRun& run : runs_) runList_->addItem(describe(run));
    note_->setText(!problem.empty() ? QString::fromStdString(problem)
                   : runs_.empty()  ? localizedFormat("logviewernoruns", stdPath(destination))
                                    : localizedFormat("logviewerfile", stdPath(logPath)));
    connect(runList_, &QListWidget::currentRowChanged, this, &FVLogViewer::showLines);
    connect(searchField_, &QLineEdit::textChanged, this, &FVLogViewer::showLines);
    if (!runs_.empty()) runList_->setCurrentRow(0);
    searchField_->setFocus();
}

QString FVLogViewer::describe(const FVLoggedRun& run) {
    using Outcome = FVLoggedRun::Outcome;
    static const char* outcomes[] = {"logoutcomefinished", "logoutcomestopped", "logoutcomerefused", "logoutcomenoroom",
                                     "logoutcomeunfinished"};
    QString text = QString::fromStdString(run.time) + '\n' +
                   localized(run.kind == FVLoggedRun::Kind::Restore ? "logkindrestore" : "logkindbackup") + ", " +
                   localized(outcomes[int(run.outcome)]);
    if (run.outcome == Outcome::Finished || run.outcome == Outcome::Stopped || run.outcome == Outcome::Unfinished)
        text += ", " + QString::fromStdString(FVStrings::formatPlural(
                           run.kind == FVLoggedRun::Kind::Restore ? "logcountrestored" : "logcountchanged",
                           static_cast<long long>(run.changedItems)));
    if (run.errorCount > 0)
        text += ", " + QString::fromStdString(FVStrings::formatPlural("logcounterrors", static_cast<long long>(run.errorCount)));
    return text;
}

void FVLogViewer::showLines() {
    lineList_->clear();
    const int row = runList_->currentRow();
    if (row < 0 || size_t(row) >= runs_.size()) return;
    const FVLoggedRun& run = runs_[size_t(row)];
    const QString filter = searchField_->text();
    for (size_t i = 0; i < run.lines.size(); ++i) {
        const QString line = QString::fromStdString(run.lines[i]);
        if (!filter.isEmpty() && !line.contains(filter, Qt::CaseInsensitive)) continue;
        auto* item = new QListWidgetItem(line, lineList_);
        if (i < run.errorCount) item->setForeground(QColor(0xb0, 0x20, 0x20));
    }
}

}  // namespace ferrovane
