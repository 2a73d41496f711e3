#include "app/FVRestoreController.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVErrorPanel.h"
#include "app/FVFileDialog.h"
#include "app/FVMainWindow.h"
#include "app/FVQtStrings.h"
#include "app/FVPointInTimeRestoreJob.h"
#include "app/FVThinProgressBar.h"
#include "app/FVVersionRestoreJob.h"
#include "engine/record/FVPointInTime.h"
#include "engine/restore/FVRestorePlan.h"
#include "engine/restore/FVRestoreTarget.h"
#include "engine/run/FVNumber.h"
#include "fs/FVText.h"
#include "engine/record/FVVersionCatalog.h"

#include <QDateTime>
#include <QDir>
#include <QLocale>
#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>

#include <sys/stat.h>

#include <algorithm>
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

// The run whose record holds an archived folder as it was: the newest complete run before the
// run that archived it. Nothing for a file, for the mirror, and for archives older than the
// first record.
std::optional<FVRunRecord> recordedRunBefore(const FVVersionCatalog& catalog, const std::string& versionPath) {
    std::string stamp;
    for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed}) {
        const std::string root = catalog.layout().archiveRoot(kind) + '/';
        if (versionPath.compare(0, root.size(), root) == 0)
            stamp = versionPath.substr(root.size(), versionPath.find('/', root.size()) - root.size());
    }
    auto time = stamp.empty() ? std::nullopt : FVVersionCatalog::stampTime(stamp);
    struct stat st {};
    if (!time || FVRestorePlan::examine(catalog.destination(), versionPath, &st) != 0 || !S_ISDIR(st.st_mode))
        return std::nullopt;
    std::optional<FVRunRecord> before;
    for (FVRunRecord& run : FVRunRecords(catalog.destination()).list())
        if (run.complete() && run.time < *time) before = std::move(run);
    return before;
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
    // An archived folder holds only what its run displaced; the folder as it was then is what the
    // run before recorded, when one did.
    if (auto before = recordedRunBefore(*catalog, stdPath(versionPath))) {
        restorePointInTime(destination, *before, {*mirror}, dialogParent);
        return;
    }
    askTarget(versionRequest(*catalog, *mirror, stdPath(versionPath)), dialogParent);
}

void FVRestoreController::restoreSourceItems(const QString& destination, const QStringList& sourcePaths) {
    std::string problem;
    auto catalog = sourcePaths.isEmpty() ? std::nullopt : openValidCatalog(stdPath(destination), &problem);
    if (!catalog) {
        QMessageBox* box = FVAlert::show(window_, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    std::vector<std::string> mirrors;
    for (const QString& sourcePath : sourcePaths) mirrors.push_back(catalog->sourceMirrorPath(stdPath(sourcePath)));
    if (mirrors.size() == 1) {
        Request request = versionRequest(*catalog, mirrors.front(), catalog->layout().destinationPath(mirrors.front()));
        request.name = FVText::lastPathComponent(stdPath(sourcePaths.front()));
        return askTarget(request, window_);
    }
    Request request;
    request.destination = catalog->destination();
    request.several = true;
    request.name = FVStrings::format("browseselection", mirrors.size());
    std::vector<std::string> folders;
    for (const QString& sourcePath : sourcePaths) folders.push_back(FVText::deletingLastPathComponent(stdPath(sourcePath)));
    std::sort(folders.begin(), folders.end());
    folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
    std::string places;
    for (const std::string& folder : folders) places += (places.empty() ? "" : ", ") + folder;
    request.original = places;
    request.job = [catalog = *catalog, mirrors](const std::string& toFolder, std::string* problem) -> std::unique_ptr<FVRestoreJob> {
        std::vector<FVRestoreTarget> targets;
        for (const std::string& mirror : mirrors) {
            auto target = FVRestoreTarget::forVersion(catalog, mirror, catalog.layout().destinationPath(mirror), toFolder, problem);
            if (!target) return nullptr;
            targets.push_back(std::move(*target));
        }
        return std::make_unique<FVVersionRestoreJob>(catalog.destination(), std::move(targets));
    };
    askTarget(request, window_);
}

void FVRestoreController::restorePointInTime(const QString& destination, const FVRunRecord& run,
                                             const std::vector<std::string>& mirrorPaths, QWidget* dialogParent) {
    std::string problem;
    auto pointInTime = mirrorPaths.empty() ? std::nullopt : FVPointInTime::open(stdPath(destination), run, &problem);
    if (!pointInTime) {
        QMessageBox* box = FVAlert::show(dialogParent, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    // Original places as that run's sources named them.
    FVVersionCatalog catalog(pointInTime->layout());
    Request request;
    request.destination = stdPath(destination);
    request.asRecordedBy = QLocale().toString(QDateTime::fromSecsSinceEpoch(run.time), QLocale::ShortFormat);
    std::vector<std::string> originals;
    for (const std::string& mirror : mirrorPaths)
        if (auto original = catalog.originalPath(mirror)) originals.push_back(*original);
    const bool allKnown = originals.size() == mirrorPaths.size();
    request.several = mirrorPaths.size() > 1;
    request.name = mirrorPaths.size() > 1 ? FVStrings::format("browseselection", mirrorPaths.size())
                                          : FVText::lastPathComponent(allKnown ? originals.front() : mirrorPaths.front());
    if (allKnown) {
        // Several items: the folders they go back into.
        if (mirrorPaths.size() > 1) {
            for (std::string& original : originals) original = FVText::deletingLastPathComponent(original);
            std::sort(originals.begin(), originals.end());
            originals.erase(std::unique(originals.begin(), originals.end()), originals.end());
        }
        std::string places;
        for (const std::string& original : originals) places += (places.empty() ? "" : ", ") + original;
        request.original = places;
    }
    request.job = [catalog, run, mirrorPaths](const std::string& toFolder, std::string* problem) -> std::unique_ptr<FVRestoreJob> {
        std::vector<std::pair<std::string, FVRestoreTarget>> items;
        for (const std::string& mirror : mirrorPaths) {
            auto target = FVRestoreTarget::forVersion(catalog, mirror, catalog.layout().destinationPath(mirror), toFolder, problem);
            if (!target) return nullptr;
            items.emplace_back(mirror, std::move(*target));
        }
        return std::make_unique<FVPointInTimeRestoreJob>(catalog.destination(), run, std::move(items), toFolder);
    };
    askTarget(request, dialogParent);
}

FVRestoreController::Request FVRestoreController::versionRequest(const FVVersionCatalog& catalog, const std::string& mirror,
                                                                 const std::string& versionPath) {
    Request request;
    request.destination = catalog.destination();
    request.original = catalog.originalPath(mirror);
    request.name = FVText::lastPathComponent(request.original.value_or(mirror));
    request.job = [catalog, mirror, versionPath](const std::string& toFolder, std::string* problem) -> std::unique_ptr<FVRestoreJob> {
        auto target = FVRestoreTarget::forVersion(catalog, mirror, versionPath, toFolder, problem);
        if (!target) return nullptr;
        std::vector<FVRestoreTarget> targets;
        targets.push_back(std::move(*target));
        return std::make_unique<FVVersionRestoreJob>(catalog.destination(), std::move(targets));
    };
    return request;
}

void FVRestoreController::askTarget(const Request& request, QWidget* parent) {
    auto* box = new QMessageBox(parent);
    box->setObjectName("restoreTargetDialog");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    box->setIcon(QMessageBox::Question);
    box->setText(localizedFormat("restoretarget", request.name));
    QString where = !request.original ? localized("restoretargetnooriginal")
                    : localizedFormat(request.several ? "restoretargetlongmany" : "restoretargetlong", *request.original);
    if (!request.asRecordedBy.isEmpty()) where = localizedFormat("restoreasrecorded", request.asRecordedBy.toStdString()) + ' ' + where;
    box->setInformativeText(where);
    QPushButton* toOriginal = box->addButton(localized("restoreoriginal"), QMessageBox::AcceptRole);
    toOriginal->setEnabled(request.original.has_value());
    QPushButton* toFolder = box->addButton(localized("restorechoosefolder"), QMessageBox::ActionRole);
    box->addButton(localized("cancelbuttontitle"), QMessageBox::RejectRole);
    box->setDefaultButton(request.original ? toOriginal : toFolder);
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
    const std::string& destination = request.destination;
    std::unique_ptr<FVRestoreJob> job = request.job(toFolder, &problem);
    if (!job) {
        QMessageBox* box = FVAlert::show(window_, "restorefailed", "restorefailed");
        box->setInformativeText(QString::fromStdString(problem));
        return;
    }
    const std::vector<std::string> targets = job->targets();
    if (std::any_of(targets.begin(), targets.end(),
                    [&](const std::string& target) { return FVText::isPathWithin(target, destination); })) {
        FVAlert::show(window_, "restoreintodestination", "restoreintodestinationlong");
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
    job_ = std::move(job);
    target_ = targets.size() == 1 ? targets.front() : FVText::deletingLastPathComponent(targets.front());
    planProblem_.clear();
    outcome_ = {};
    errors_.clear();
    emit restoreStarted();

    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localizedFormat("restorepreparing", name_));
    cover->setSmallMessage(qPath(target_));
    cover->setProgress(0);
    cover->scrollIn();
    // Planning walks the whole item and reads every existing target: not on the window's thread.
    worker_ = std::thread([this] {
        job_->plan(&planProblem_);
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
        outcome_.cancelled = true;
        finished();
        return;
    }
    if (!job_->conflicts().empty()) {
        askAboutConflicts();
        return;
    }
    copy(false);
}

void FVRestoreController::askAboutConflicts() {
    const auto conflicts = job_->conflicts();
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
    total_ = job_->itemCount();
    showProgress();
    worker_ = std::thread([this, replace] {
        outcome_ = job_->copy(
            replace,
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
    emit progressChanged(percent / 100.0, qint64(done));
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
    const std::string target = target_;
    QString headline = outcome_.cancelled     ? localized("restorestopped")
                       : !errors.empty()      ? plural("restorefinishederrors", (long long)errors.size())
                                              : localized("restorefinished");
    QString summary = plural("restoresummary", (long long)outcome_.files,
                             FVNumber::formattedDiskSizeString(double(outcome_.bytes)));
    if (outcome_.replaced > 0) summary += " · " + plural("restorereplacedcount", (long long)outcome_.replaced);
    if (outcome_.identical > 0) summary += " · " + plural("restoreidenticalcount", (long long)outcome_.identical);
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
    QMessageBox* box = FVAlert::show(window_, outcome_.cancelled ? "restorestopped" : "restorefinished",
                                     outcome_.cancelled ? "restorestoppedlong" : "restorefinished", QMessageBox::Information,
                                     [this] { window_->coverView()->openView(); });
    box->setObjectName("restoreOutcome");
    box->setInformativeText(outcome_.cancelled ? summary + "\n\n" + localized("restorestoppedlong")
                                               : summary + "\n\n" + localizedFormat("restoredto", target));
}

void FVRestoreController::end() {
    running_ = false;
    job_.reset();
    lock_.release();
    window_->coverView()->setProgress(-1);
    window_->progressView()->setProgress(0);
    emit restoreEnded();
}

}  // namespace ferrovane
