#include "app/FVVerifySheet.h"

#include "app/FVQtStrings.h"
#include "app/FVScreenFit.h"
#include "engine/run/FVNumber.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace ferrovane {

FVVerifySheet::FVVerifySheet(QWidget* window, const QString& destination) : QDialog(window), destination_(destination) {
    setObjectName("verifySheet");
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowModality(Qt::WindowModal);
    setWindowTitle(localized("verifytitle"));
    FVScreenFit::resize(this, {680, 400});

    auto* intro = new QLabel(localizedFormat("verifyintro", stdPath(destination)));
    intro->setWordWrap(true);
    sources_ = new QCheckBox(localized("verifysources"));
    sources_->setObjectName("verifySources");
    startButton_ = new QPushButton(localized("verifystart"));
    startButton_->setObjectName("verifyStart");
    connect(startButton_, &QPushButton::clicked, this, &FVVerifySheet::startOrStop);
    auto* controls = new QHBoxLayout;
    controls->addWidget(sources_, 1);
    controls->addWidget(startButton_);

    task_ = new QLabel;
    task_->setForegroundRole(QPalette::PlaceholderText);
    progress_ = new QProgressBar;
    progress_->setObjectName("verifyProgress");
    progress_->setRange(0, 1000);
    progress_->setTextVisible(false);

    findings_ = new QTreeWidget;
    findings_->setObjectName("verifyFindings");
    findings_->setRootIsDecorated(false);
    findings_->setHeaderLabels({localized("verifycolumnfinding"), localized("verifycolumnpath")});
    findings_->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    findings_->header()->setStretchLastSection(true);

    outcome_ = new QLabel;
    outcome_->setObjectName("verifyOutcome");
    outcome_->setWordWrap(true);
    outcome_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto* buttons = new QDialogButtonBox;
    buttons->addButton(localized("closebutton"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addLayout(controls);
    layout->addWidget(task_);
    layout->addWidget(progress_);
    layout->addWidget(findings_, 1);
    layout->addWidget(outcome_);
    layout->addWidget(buttons);
}

FVVerifySheet::~FVVerifySheet() { stop(); }

void FVVerifySheet::startOrStop() {
    if (verification_) verification_->cancel();
    else start();
}

void FVVerifySheet::start() {
    if (verification_) return;
    findings_->clear();
    outcome_->clear();
    progress_->setValue(0);
    // Reports come from the verification's threads; each one is shown on the window's thread.
    verification_ = std::make_unique<FVVerification>(
        FVVerification::Options{stdPath(destination_), {}, sources_->isChecked(), 4},
        [this](const FVVerification::Progress& p) {
            QMetaObject::invokeMethod(this, [this, p] { showProgress(p); }, Qt::QueuedConnection);
        },
        [this](const FVVerificationFinding& finding) {
            QMetaObject::invokeMethod(this, [this, finding] { addFinding(finding); }, Qt::QueuedConnection);
        });
    sources_->setEnabled(false);
    startButton_->setText(localized("verifystop"));
    thread_ = std::thread([this] {
        FVVerificationSummary summary = verification_->run();
        QMetaObject::invokeMethod(this, [this, summary] { showSummary(summary); }, Qt::QueuedConnection);
    });
}

void FVVerifySheet::stop() {
    if (!thread_.joinable()) return;
    verification_->cancel();
    thread_.join();
}

void FVVerifySheet::showProgress(const FVVerification::Progress& progress) {
    if (!verification_) return;
    progress_->setValue(static_cast<int>(progress.percent * 10));
    task_->setText(QString::fromStdString(
        FVStrings::formatPlural("verifyprogress", static_cast<long long>(progress.files), progress.task,
                                FVNumber::formattedDiskSizeString(static_cast<double>(progress.bytes)))));
}

void FVVerifySheet::addFinding(const FVVerificationFinding& finding) {
    auto* item = new QTreeWidgetItem(findings_, {QString::fromUtf8(FVVerificationFinding::kindName(finding.kind)),
                                                 qPath(finding.path)});
    if (!finding.detail.empty()) item->setToolTip(1, QString::fromStdString(finding.detail));
}

void FVVerifySheet::showSummary(const FVVerificationSummary& summary) {
    thread_.join();
    verification_.reset();
    sources_->setEnabled(true);
    startButton_->setText(localized("verifystart"));
    progress_->setValue(summary.status == FVVerificationSummary::Status::Cancelled ? progress_->value() : 1000);
    task_->clear();
    outcome_->setText(QString::fromStdString(FVVerification::describe(summary)));
    emit verificationEnded(static_cast<int>(summary.status));
}

}  // namespace ferrovane
