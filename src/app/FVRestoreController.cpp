#include "app/FVRestoreController.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVErrorPanel.h"
#include "app/FVFileDialog.h"
#include "app/FVMainWindow.h"
#include "app/FVQtStrings.h"
#include "app/FVThinProgressBar.h"
#include "engine/FVAdditions.h"
#include "engine/FVRestoreTarget.h"
#include "fs/FVText.h"
#include "engine/FVVersionCatalog.h"

#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

// The conflict question names this many items; the rest are behind its details.
constexpr size_t kConflictsNamed = 8;

template <class... Args>
QString plural(const char* key, long long count, Args&&... args) {
    return QString::fromStdString(FVStrings::formatPlural(key, count, std::forward<Args>(args)...));
}

// The destination's catalog, when its layout can be trusted: colliding mirrors hold one source's
// files under another's name, and a restore from them would put back the wrong bytes.
std::optional<FVVersionCatalog> openValidCatalog(const std::string& destination, std::string* problem) {
    auto catalog = FVVersionCatalog::open(destination, problem);
    if (!catalog) return std::nullopt;
    if (auto invalid = catalog->layout().validateAsSeen()) {
        *problem = *invalid;
        return std::nullopt;
    }
    return catalog;
}

}  // namespace

FVRestoreController::FVRestoreController(FVMainWindow* window, std::function<bool()> windowIsBusy, QObject* parent)
    : QObject(parent), window_(window), windowIsBusy_(std::move(windowIsBusy)) {}

FVRestoreController::~FVRestoreController() {
    interrupt_ = true;
    joinWorker();
}

void FVRestoreController::joinWorker() {
    if (worker_.joinable()) worker_.join();
}

void FVRestoreController::restoreVersion(const QString& destination, const QString& versionPath, QWidget* dialogParent) {
    std::string problem;
    auto catalog = openValidCatalog(stdPath(destination), &problem);
    auto mirror = catalog ? catalog->mirrorPath(stdPath(versionPath)) : std::nullopt;
    if (!mirror) {
        QMessageBox* box = FVAlert::show(dialogParent, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    std::string name = FVText::lastPathComponent(catalog->originalPath(*mirror).value_or(*mirror));
    askTarget({*catalog, *mirror, stdPath(versionPath), name}, dialogParent);
}

void FVRestoreController::restoreSourceItem(const QString& destination, const QString& sourcePath) {
    std::string problem;
    auto catalog = openValidCatalog(stdPath(destination), &problem);
    if (!catalog) {
        QMessageBox* box = FVAlert::show(window_, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    std::string mirror = catalog->sourceMirrorPath(stdPath(sourcePath));
    askTarget({*catalog, mirror, catalog->layout().destinationPath(mirror),
               FVText::lastPathComponent(stdPath(sourcePath))},
              window_);
}

void FVRestoreController::askTarget(const Request& request, QWidget* parent) {
    auto original = request.catalog.originalPath(request.mirrorPath);

    auto* box = new QMessageBox(parent);
    box->setObjectName("restoreTargetDialog");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    box->setIcon(QMessageBox::Question);
    box->setText(localizedFormat("restoretarget", request.name));
    box->setInformativeText(original ? localizedFormat("restoretargetlong", *original)
                                     : localized("restoretargetnooriginal"));
    QPushButton* toOriginal = box->addButton(localized("restoreoriginal"), QMessageBox::AcceptRole);
    toOriginal->setEnabled(original.has_value());
    QPushButton* toFolder = box->addButton(localized("restorechoosefolder"), QMessageBox::ActionRole);
    box->addButton(localized("cancelbuttontitle"), QMessageBox::RejectRole);
    box->setDefaultButton(original ? toOriginal : toFolder);
    QPointer<QWidget> host = parent;
    connect(box, &QMessageBox::finished, this, [this, box, toOriginal, toFolder, request, host] {
        if (box->clickedButton() == toOriginal) start(request, {});
        else if (box->clickedButton() == toFolder && host) chooseFolder(request, host);
    });
    box->open();
}

void FVRestoreController::chooseFolder(const Request& request, QWidget* parent) {
    QFileDialog* panel = FVFileDialog::make(parent, localizedFormat("restorefoldertitle", request.name),
                                            "restoreFolderDialog", QFileDialog::Directory, localized("restorebutton"));
    connect(panel, &QFileDialog::fileSelected, this, [this, request](const QString& folder) {
        start(request, FVText::standardizedPath(stdPath(QDir(folder).absolutePath())));
    });
    panel->open();
}

void FVRestoreController::start(const Request& request, const std::string& toFolder) {
    if (running_ || windowIsBusy_()) {
        FVAlert::show(window_, "restorebusy", "restorebusylong");
        return;
    }
    std::string problem;
    const std::string& destination = request.catalog.destination();
    auto target = FVRestoreTarget::forVersion(request.catalog, request.mirrorPath, request.versionPath, toFolder, &problem);
    if (target && FVText::isPathWithin(target->to, destination)) {
        FVAlert::show(window_, "restoreintodestination", "restoreintodestinationlong");
        return;
    }
    if (!target) {
        QMessageBox* box = FVAlert::show(window_, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    if (lock_.acquire(destination, FVDestinationLock::Mode::Shared) != FVDestinationLock::Status::Acquired) {
        QMessageBox* box = FVAlert::show(window_, "destinationbusy", "destinationbusylong");
        box->setInformativeText(QString::fromStdString(
            lock_.reason().empty() ? FVDestinationLock::busyMessage(destination) : lock_.reason()));
        return;
    }
    running_ = true;
    interrupt_ = false;
    destination_ = destination;
    name_ = request.name;
    plans_.clear();
    planProblem_.clear();
    summary_ = {};
    errors_.clear();
    emit restoreStarted();

    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localizedFormat("restorepreparing", name_));
    cover->setSmallMessage(qPath(target->to));
    cover->setProgress(0);
    cover->scrollIn();
    // Planning walks the whole item and reads every existing target: not on the window's thread.
    worker_ = std::thread([this, target = *target] {
        struct stat st {};
        if (int error = FVRestorePlan::examine(destination_, target.from, &st))
            planProblem_ = FVStrings::format("restorenocopy", target.to, std::strerror(error));
        else
            plans_.emplace_back(destination_, target.from, target.to, target.root, target.parentMirrors);
        QMetaObject::invokeMethod(this, &FVRestoreController::planned, Qt::QueuedConnection);
    });
}

void FVRestoreController::planned() {
    joinWorker();
    if (!planProblem_.empty()) {
        end();
        QMessageBox* box = FVAlert::show(window_, "restorefailed", "restorefailed", QMessageBox::Warning,
                                         [this] { window_->coverView()->openView(); });
        box->setInformativeText(QString::fromStdString(planProblem_));
        return;
    }
    if (interrupt_) {
        summary_.cancelled = true;
        finished();
        return;
    }
    if (!plans_.front().conflicts().empty()) {
        askAboutConflicts();
        return;
    }
    copy(false);
}

void FVRestoreController::askAboutConflicts() {
    const auto& conflicts = plans_.front().conflicts();
    QString named, all;
    for (size_t k = 0; k < conflicts.size(); ++k) {
        QString line = localizedFormat("restoreconflictline", conflicts[k].target, conflicts[k].reason);
        all += line + '\n';
        if (k < kConflictsNamed) named += line + '\n';
    }
    if (conflicts.size() > kConflictsNamed) named += localizedFormat("restoreconflictsmore", conflicts.size() - kConflictsNamed);
    auto* box = new QMessageBox(window_);
    box->setObjectName("restoreConflictDialog");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    box->setIcon(QMessageBox::Warning);
    box->setText(plural("restoreconflicts", (long long)conflicts.size()));
    box->setInformativeText(named.trimmed() + "\n\n" + localized("restoreconflictslong"));
    if (conflicts.size() > kConflictsNamed) box->setDetailedText(all);
    QPushButton* cancel = box->addButton(localized("cancelbuttontitle"), QMessageBox::RejectRole);
    QPushButton* replace = box->addButton(localized("restorereplace"), QMessageBox::DestructiveRole);
    box->setDefaultButton(cancel);
    connect(box, &QMessageBox::finished, this, [this, box, replace] {
        if (box->clickedButton() == replace && !interrupt_) {
            copy(true);
            return;
        }
        // Refused: nothing was written.
        end();
        window_->coverView()->openView();
    });
    box->open();
}

void FVRestoreController::copy(bool replace) {
    FVCoverView* cover = window_->coverView();
    cover->setMessage(localizedFormat("restoring", name_));
    done_ = 0;
    total_ = plans_.front().pairs().size();
    showProgress();
    worker_ = std::thread([this, replace] {
        FVRestoreRun run(plans_, replace);
        summary_ = run.run(
            destination_,
            [this](uint64_t done, uint64_t total) {
                done_ = done;
                total_ = total;
                if (!progressPosted_.exchange(true))
                    QMetaObject::invokeMethod(this, &FVRestoreController::showProgress, Qt::QueuedConnection);
            },
            [this](const std::string& line, bool isError) {
                std::lock_guard lock(errorsMutex_);
                if (isError) errors_.push_back(line);
            },
            interrupt_);
        QMetaObject::invokeMethod(this, &FVRestoreController::finished, Qt::QueuedConnection);
    });
}

void FVRestoreController::showProgress() {
    progressPosted_ = false;
    if (!running_) return;
    const uint64_t done = done_, total = total_;
    double percent = total == 0 ? 0.0 : double(done) * 100.0 / double(total);
    window_->coverView()->setProgress(percent);
    window_->progressView()->setProgress(percent);
    window_->coverView()->setDetailMessage(plural("restoreprogressdetail", (long long)total, (long long)done));
}

void FVRestoreController::stop() {
    if (!running_ || interrupt_) return;
    interrupt_ = true;
    window_->coverView()->setMessage(localized("restorestopping"));
}

void FVRestoreController::finished() {
    joinWorker();
    std::vector<std::string> errors;
    {
        std::lock_guard lock(errorsMutex_);
        errors = errors_;
    }
    const std::string target = plans_.empty() ? std::string() : plans_.front().to();
    QString headline = summary_.cancelled     ? localized("restorestopped")
                       : !errors.empty()      ? plural("restorefinishederrors", (long long)errors.size())
                                              : localized("restorefinished");
    QString summary = plural("restoresummary", (long long)summary_.files,
                             FVNumber::formattedDiskSizeString(double(summary_.bytes)));
    if (summary_.replaced > 0) summary += " · " + plural("restorereplacedcount", (long long)summary_.replaced);
    const uint64_t identical = plans_.empty() ? 0 : plans_.front().identicalCount();
    if (identical > 0) summary += " · " + plural("restoreidenticalcount", (long long)identical);
    end();

    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(headline);
    cover->setDetailMessage(summary);
    cover->setSmallMessage(qPath(target));
    if (!errors.empty()) {
        auto* panel = new FVErrorPanel(window_, errors, "restoreerrorstitle", "restoreerrorsmessage");
        connect(panel, &QDialog::finished, this, [this] { window_->coverView()->openView(); });
        panel->open();
        return;
    }
    QMessageBox* box = FVAlert::show(window_, summary_.cancelled ? "restorestopped" : "restorefinished",
                                     summary_.cancelled ? "restorestoppedlong" : "restorefinished", QMessageBox::Information,
                                     [this] { window_->coverView()->openView(); });
    box->setObjectName("restoreOutcome");
    box->setInformativeText(summary_.cancelled ? summary + "\n\n" + localized("restorestoppedlong")
                                               : summary + "\n\n" + localizedFormat("restoredto", target));
}

void FVRestoreController::end() {
    running_ = false;
    lock_.release();
    window_->coverView()->setProgress(-1);
    window_->progressView()->setProgress(0);
    emit restoreEnded();
}

}  // namespace ferrovane
