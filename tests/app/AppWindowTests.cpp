// The main window driven as a user would: destinations, the checks before a run, a real run and
// its cancellation, the options sheet with its schedule, and a version found and restored.

#include "app/AppController.h"
#include "app/FVBackupBrowser.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVDestinationSearchSheet.h"
#include "app/FVErrorPanel.h"
#include "app/FVLogViewer.h"
#include "app/FVLauncherEntry.h"
#include "app/FVMainWindow.h"
#include "app/FVOptionsPanel.h"
#include "app/FVOverdueBanner.h"
#include "app/FVRestoreController.h"
#include "app/FVSingleInstance.h"
#include "app/FVSourceListModel.h"
#include "app/FVRunTreeModel.h"
#include "app/FVSourceListView.h"
#include "app/FVThinProgressBar.h"
#include "app/FVVerifySheet.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/run/FVStrings.h"
#include "scheduling/FVJobStatus.h"
#include "support/PrivateBus.h"
#include "support/RecordedRun.h"
#include "support/RecordingRunner.h"
#include "support/TestHooks.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QSignalSpy>
#include <QTimeEdit>
#include <QToolButton>
#include <QTest>
#include <QTimer>
#include <QTreeView>
#include <QHeaderView>
#include <QTreeWidget>

#include <filesystem>
#include <sys/mount.h>
#include <unistd.h>
#include <memory>

using namespace ferrovane;
using ferrovane::test::RecordingRunner;
using ferrovane::test::TempDir;
namespace fs = std::filesystem;

namespace {

class RecordingNotifier final : public FVUserNotifier {
public:
    bool deliver(const FVUserNotification& notification) override {
        titles.push_back(notification.title);
        subtitles.push_back(notification.subtitle);
        return true;
    }
    std::vector<std::string> titles, subtitles;
};

// The access key of a menu or button text: the letter after a single '&', or none.
QChar accessKey(const QString& text) {
    for (qsizetype i = 0; i + 1 < text.size(); ++i)
        if (text[i] == '&') {
            if (text[i + 1] != '&') return text[i + 1].toLower();
            ++i;
        }
    return {};
}

// How long a condition the window reaches by itself may take on a loaded machine: a wait ends as
// soon as it holds, so only a failing test waits this long.
constexpr int kPatience = 60000;

QString text(const char* key) { return QString::fromStdString(FVStrings::localized(key)); }

// What the window says while a destination's disk is away.
QString awayLine(const std::string& destination) {
    return QString::fromStdString(FVStrings::format("destinationaway", fs::path(destination).filename().string()));
}

// The dialog of that name (of any name when none is given) currently open on the window.
template <class T = QMessageBox>
T* openDialog(QWidget* window, const char* name = nullptr) {
    for (T* dialog : window->findChildren<T*>(name ? QString(name) : QString()))
        if (dialog->isVisible()) return dialog;
    return nullptr;
}

void clickButton(QMessageBox* box, const char* key) {
    for (QAbstractButton* button : box->buttons())
        if (button->text() == text(key)) {
            button->click();
            return;
        }
    QFAIL(qPrintable(QString("no button ") + key));
}

PlistDict readSettingsOf(const std::string& destination) {
    auto read = FVConfigurationFile::read(FVConfigurationFile::currentPath(destination));
    return read.status == FVConfigurationReadStatus::Ok ? *read.configuration.settings : PlistDict{};
}

// What this process holds open on or below path: nothing may keep a destination busy while idle.
QStringList descriptorsUnder(const std::string& path) {
    QStringList held;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string target = fs::read_symlink(entry.path(), error).string();
        if (!error && (target == path || target.rfind(path + "/", 0) == 0))
            held << QString::fromStdString(entry.path().filename().string() + " -> " + target);
    }
    return held;
}

std::vector<FVSourceItemPtr> readSourcesOf(const std::string& destination) {
    return FVConfigurationFile::read(FVConfigurationFile::currentPath(destination)).configuration.sources;
}

}  // namespace

// Hears the launcher-entry signals on a private bus.
class LauncherListener : public QObject {
    Q_OBJECT
public:
    std::vector<QVariantMap> updates;
    QStringList applications;

public slots:
    void update(const QDBusMessage& message) {
        applications << message.arguments().value(0).toString();
        updates.push_back(qdbus_cast<QVariantMap>(message.arguments().value(1)));
    }
};

class AppWindowTest : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TempDir> home_;
    std::unique_ptr<TempDir> work_;
    std::shared_ptr<RecordingRunner> runner_;
    std::shared_ptr<RecordingNotifier> notifier_;
    std::unique_ptr<AppController> app_;

    AppController& launch(bool root = false) {
        app_.reset();
        notifier_ = std::make_shared<RecordingNotifier>();
        app_ = std::make_unique<AppController>(AppEnvironment{root, runner_, notifier_, statusFolder()});
        app_->initialiseApplication();
        return *app_;
    }

    FVCoverView* cover() { return app_->window()->coverView(); }
    std::string statusFolder() const { return *home_ / "state"; }
    QString cell(int row, int column) {
        QAbstractItemModel* model = app_->window()->sourceListView()->model();
        return model->data(model->index(row, column), Qt::DisplayRole).toString();
    }

    // Adds the destination through the window and waits until its list is shown.
    void openDestination(const std::string& path) {
        app_->addAndOpenNewDestination(QString::fromStdString(path));
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
    }

    // Starts the window on destination and adds the sources to its list.
    void startOn(const std::string& destination, const std::vector<std::string>& sources = {}) {
        launch();
        openDestination(destination);
        QStringList paths;
        for (const std::string& source : sources) paths << QString::fromStdString(source);
        if (!paths.isEmpty()) app_->addSourcePaths(paths, 0);
    }

    std::string makeDir(const std::string& name) {
        std::string path = *work_ / name;
        fs::create_directories(path);
        return path;
    }

    // The open dialog named name (any open alert without a name) once it has appeared.
    template <class T = QMessageBox>
    T* awaitDialog(const char* name = nullptr) {
        T* dialog = nullptr;
        [&] { QTRY_VERIFY_WITH_TIMEOUT((dialog = openDialog<T>(app_->window(), name)) != nullptr, kPatience); }();
        return dialog;
    }

    // Answers the restore's question where to with a chosen folder.
    void restoreInto(const std::string& folder) {
        clickButton(awaitDialog("restoreTargetDialog"), "restorechoosefolder");
        auto* dialog = awaitDialog<QFileDialog>("restoreFolderDialog");
        emit dialog->fileSelected(QString::fromStdString(folder));
        dialog->reject();
    }

    // Back Up Now, and whether the run ended in time.
    bool backUp() {
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        app_->window()->startButton()->click();
        return ended.wait(kPatience);
    }

    QMessageBox* clickStartExpectingAlert() {
        app_->window()->startButton()->click();
        return awaitDialog();
    }

private slots:
    void initTestCase() {
        home_ = std::make_unique<TempDir>();
        qputenv("HOME", home_->path().c_str());
        qputenv("XDG_CONFIG_HOME", (*home_ / "config").c_str());
        qputenv("XDG_DATA_HOME", (*home_ / "data").c_str());
        qputenv("FERROVANE_LOG_FILE", (*home_ / "Ferrovane.log").c_str());
        qputenv("FERROVANE_JOB_DIRECTORY", (*home_ / "jobs").c_str());
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
        qputenv("FERROVANE_TEST_HOOKS", (*home_ / "hooks").c_str());
        QApplication::setOrganizationName("Ferrovane");
        QApplication::setApplicationName("Ferrovane");
    }

    void init() {
        work_ = std::make_unique<TempDir>();
        fs::remove_all(*home_ / "jobs");
        fs::remove_all(*home_ / "state");
        QSettings settings;
        settings.clear();
        settings.setValue("suppressDonationRequest", true);
        runner_ = std::make_shared<RecordingRunner>();
    }

    void cleanup() {
        app_.reset();
        work_.reset();
    }

    void destinationsAreAddedSelectedRemovedAndRemembered() {
        // No donation request before the first backup, nor without an address to donate at.
        QSettings().remove("suppressDonationRequest");
        launch();
        QVERIFY(!openDialog(app_->window()));
        QCOMPARE(cover()->message(), text("viewnobackupselected"));
        QVERIFY(!app_->window()->startButton()->isEnabled() && !app_->window()->optionsButton()->isEnabled());
        // Help > About only tells: Escape closes it.
        app_->window()->aboutAction()->trigger();
        QTest::keyClick(awaitDialog("aboutBox"), Qt::Key_Escape);
        QTRY_VERIFY_WITH_TIMEOUT(!openDialog(app_->window(), "aboutBox"), kPatience);

        std::string a = makeDir("A"), b = makeDir("B");
        openDestination(a);
        // A new destination gets a complete configuration: the defaults and no sources.
        PlistDict written = readSettingsOf(a);
        for (const auto& [key, value] : FVConfigurationFile::defaultOptions())
            QCOMPARE(written.integerValue(key), value);
        // It keeps versions, thins them out and keeps room on the disk.
        for (const char* key : {FVOptionKey::moveChangedFiles, FVOptionKey::retentionEnabled, FVOptionKey::keepFreeSpace})
            QVERIFY2(written.boolValue(key), key);
        QVERIFY(readSourcesOf(a).empty());
        QVERIFY(app_->window()->startButton()->isEnabled());

        openDestination(b);
        openDestination(a);  // known already: selected, not added twice
        QCOMPARE(app_->destinations().count(), 2);
        QCOMPARE(QSettings().value("recentBackupsPopupIndex").toInt(), 0);

        app_->performTargetMenuSelection(1);
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
        QCOMPARE(app_->currentTargetPath(), b);

        // Reopened at the next start.
        launch();
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
        QCOMPARE(app_->currentTargetPath(), b);

        // The popup tells where each destination is and its room; removing names the one removed.
        const QString hover = app_->window()->targetPopup()->describe(1);
        QVERIFY2(hover.startsWith(QString::fromStdString(b + "\n")) && hover.endsWith(" free"), qPrintable(hover));
        QCOMPARE(app_->window()->removeDestinationAction()->text(), "&Remove “B”…");
        // Removing the last entry selects the first.
        app_->removeTargetWidgetClicked();
        QCOMPARE(awaitDialog()->text(), "Remove “B” from the list of destinations?");
        clickButton(awaitDialog(), "removebutton");
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
        QCOMPARE(app_->destinations().count(), 1);
        QCOMPARE(app_->currentTargetPath(), a);
        QVERIFY(fs::exists(FVConfigurationFile::currentPath(b)));  // the destination's files stay
    }

    void openingReportsUnusableDestinationsAndRepairsConfigurations() {
        std::string gone = makeDir("gone"), legacy = makeDir("legacy"), admin = makeDir("admin");
        startOn(gone);
        fs::remove_all(gone);
        launch();
        QTRY_COMPARE_WITH_TIMEOUT(cover()->message(), awayLine(gone), kPatience);
        QVERIFY(!app_->window()->startButton()->isEnabled());

        // Chosen in the popup, an unavailable destination is asked about over an empty window,
        // not over the list, free space and buttons of the destination before it.
        std::string usable = makeDir("usable");
        openDestination(usable);
        app_->addSourcePaths({QString::fromStdString(makeDir("Documents"))}, 0);
        // A source that holds the destination is added, with a warning.
        app_->addSourcePaths({QString::fromStdString(fs::path(usable).parent_path().string())}, 0);
        QCOMPARE(awaitDialog()->text(), text("sourcecontainsdestination"));
        QCOMPARE(app_->backupSetController().count(), size_t(2));
        awaitDialog()->accept();
        app_->performTargetMenuSelection(0);
        QMessageBox* question = awaitDialog();
        QCOMPARE(question->text(), text("removetarget"));
        QVERIFY(cover()->isFullyShown() && app_->window()->sourceListView()->model()->rowCount() == 0);
        QVERIFY(app_->window()->progressInfo()->text().isEmpty() && !app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->window()->optionsButton()->isEnabled());
        clickButton(question, "keepbutton");
        QTRY_COMPARE_WITH_TIMEOUT(cover()->message(), awayLine(gone), kPatience);

        // The older file is renamed, read, and completed with the defaults.
        PlistDict old;
        old.set(FVOptionKey::maxThreads, int64_t(5));
        auto item = FVSourceItem::make(makeDir("src"), FVSourceMode::Backup);
        FVConfigurationFile::writeSettingsForSourceConfiguration({item}, old, FVConfigurationFile::legacyPath(legacy));
        openDestination(legacy);
        QCOMPARE(readSettingsOf(legacy).integerValue(FVOptionKey::maxThreads), 5);
        QCOMPARE(app_->backupSetController().count(), size_t(1));
        QCOMPARE(awaitDialog()->text(), text("Ferrovane3UpgradeAlertMessage"));
        awaitDialog()->accept();
        // An existing file is no new destination: what it never stored stays off, also through the options.
        app_->window()->optionsButton()->click();
        awaitDialog<FVOptionsPanel>()->accept();
        for (const char* key : {FVOptionKey::moveChangedFiles, FVOptionKey::retentionEnabled, FVOptionKey::keepFreeSpace})
            QVERIFY2(!readSettingsOf(legacy).contains(key), key);

        // A destination set up by root stays closed to other users.
        PlistDict rootOnly;
        rootOnly.set(FVOptionKey::isSuperuserBackup, true);
        FVConfigurationFile::writeSettingsForSourceConfiguration({}, rootOnly, FVConfigurationFile::currentPath(admin));
        app_->addAndOpenNewDestination(QString::fromStdString(admin));
        QTRY_COMPARE_WITH_TIMEOUT(cover()->message(), text("destinationrequiressuperuser"), kPatience);
        QVERIFY(!app_->window()->startButton()->isEnabled());
    }

    void startChecksRunInOrderAndEachRefusesWithItsAlert() {
        std::string destination = makeDir("dest");
        startOn(destination);
        BackupSetController& list = app_->backupSetController();

        QCOMPARE(clickStartExpectingAlert()->text(), text("nosources"));
        openDialog(app_->window())->accept();

        // "/" without root is refused before the file system is looked at.
        list.addBackupPath("/", FVSourceMode::Backup, 0);
        list.addBackupPath(makeDir("x/Documents"), FVSourceMode::Backup, 0);
        QCOMPARE(clickStartExpectingAlert()->text(), text("cloningbutnotroot"));
        openDialog(app_->window())->accept();

        launch(true);
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
        QCOMPARE(clickStartExpectingAlert()->text(), text("cloningwithothersources"));
        openDialog(app_->window())->accept();

        // Two sources that would share one mirror folder: refused at the start (a list written by
        // hand) and when the second one is added.
        app_->backupSetController().removeAllItems();
        app_->backupSetController().addBackupPath(makeDir("x/Documents"), FVSourceMode::Backup, 0);
        app_->backupSetController().addBackupPath(makeDir("y/Documents"), FVSourceMode::Backup, 0);
        QMessageBox* colliding = clickStartExpectingAlert();
        QCOMPARE(colliding->text(), text("layoutinvalid"));
        QVERIFY(colliding->informativeText().contains("x/Documents"));
        QVERIFY(colliding->informativeText().contains("y/Documents"));
        colliding->accept();
        app_->backupSetController().removeItemsAtIndexes({1});
        app_->addSourcePaths({QString::fromStdString(makeDir("z/Documents"))}, 0);
        QCOMPARE(awaitDialog()->text(), text("layoutinvalid"));
        awaitDialog()->accept();
        QCOMPARE(app_->backupSetController().count(), size_t{1});

        // An option that cannot be used, then a destination another run holds.
        app_->optionsPanelController().allOptions()->set(FVOptionKey::purgeChangedArchiveDays, "thirty");
        QMessageBox* invalid = clickStartExpectingAlert();
        QCOMPARE(invalid->text(), text("optionsinvalid"));
        QVERIFY(invalid->informativeText().startsWith("Option purgeChangedArchiveDays: expected"));
        invalid->accept();
        app_->optionsPanelController().allOptions()->set(FVOptionKey::purgeChangedArchiveDays, int64_t{30});
        FVDestinationLock other;
        QCOMPARE(other.acquire(destination), FVDestinationLock::Status::Acquired);
        QMessageBox* busy = clickStartExpectingAlert();
        QCOMPARE(busy->text(), text("destinationbusy"));
        QCOMPARE(busy->informativeText().toStdString(), FVDestinationLock::busyMessage(destination));
        busy->accept();
        other.release();

        // A destination that went away comes first and closes the destination.
        fs::remove_all(destination);
        QCOMPARE(clickStartExpectingAlert()->text(), text("backupnotfound"));
        QTRY_COMPARE_WITH_TIMEOUT(cover()->message(), awayLine(destination), kPatience);
        QVERIFY(!app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->isBackupRunning());
    }

    void aRunWritesItsResultsAndAnArchivedVersionIsRestoredFromTheSearch() {
        std::string destination = makeDir("dest"), source = makeDir("Projects"), restored = makeDir("Restored");
        for (int i = 0; i < 3; ++i) ferrovane::test::writeFile(source + "/file" + std::to_string(i), std::string(1000 * (i + 1), 'x'));
        fs::last_write_time(source + "/file2", fs::file_time_type::clock::now() - std::chrono::hours(48));  // older than its change
        startOn(destination, {source});
        // Another window in front: the run's start and end are told on the desktop, as backups.
        QWidget front;
        front.show();
        front.activateWindow();
        QTRY_VERIFY_WITH_TIMEOUT(!app_->window()->isActiveWindow(), kPatience);
        QVERIFY(backUp());
        QCOMPARE(notifier_->titles, (std::vector<std::string>{"Backup started: dest", "Backup finished: dest"}));
        front.close();
        app_->window()->activateWindow();

        QVERIFY(cover()->message().startsWith(text("viewbackupfinished").section('{', 0, 0)));
        QVERIFY(!openDialog(app_->window()) && app_->window()->targetPopup()->isEnabled());
        QCOMPARE(descriptorsUnder(destination).join(" | "), QString());
        // Written back: the folder and its three files.
        QCOMPARE(readSourcesOf(destination)[0]->integerValue(FVSourceKey::updatedFilesCount), 4);
        // The outcome at a glance, in the row and under the list.
        QVERIFY(cell(0, FVSourceListModel::LastRunColumn).contains("finished, 4 of"));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("finished") && !app_->window()->showErrorsButton()->isVisibleTo(app_->window()));
        // Every write removes the measured sizes; each is measured again, after the run and
        // after the options were closed alike.
        const QString calculating = text("sourcesizecalculating");
        QTRY_VERIFY_WITH_TIMEOUT(cell(0, FVSourceListModel::SizeColumn) != calculating, kPatience);
        app_->window()->optionsButton()->click();
        // The mirror is in place: another placement would leave it behind, so none is offered.
        QVERIFY(!app_->window()->findChild<FVOptionsPanel*>()->findChild<QComboBox*>("syncMode")->isEnabled());
        app_->window()->findChild<FVOptionsPanel*>()->accept();
        QTRY_VERIFY_WITH_TIMEOUT(cell(0, FVSourceListModel::SizeColumn) != calculating, kPatience);
        QTRY_VERIFY_WITH_TIMEOUT(app_->window()->summaryLine()->text().startsWith("1 item, "), kPatience);

        // A second run archives the changed file2 and the removed file0.
        app_->optionsPanelController().allOptions()->set(FVOptionKey::moveChangedFiles, true);
        ferrovane::test::writeFile(source + "/file2", "changed");
        fs::remove(source + "/file0");
        QVERIFY(backUp());
        // Show Log…: this destination's two runs, newest first, and a search among the lines.
        app_->window()->showLogAction()->trigger();
        auto* log = awaitDialog<FVLogViewer>("logViewer");
        QCOMPARE(log->runList()->count(), 2);
        QVERIFY2(log->runList()->item(0)->text().contains("\nBackup, finished, "),
                 qPrintable(log->runList()->item(0)->text()));
        log->searchField()->setText("source finished analysing");
        QCOMPARE(log->lineList()->count(), 1);
        QVERIFY(log->lineList()->item(0)->text().contains(QString::fromStdString(source + " (")));
        log->reject();
        app_->window()->searchButton()->click();
        auto* sheet = app_->window()->findChild<FVDestinationSearchSheet*>();
        sheet->findChild<QLineEdit*>("searchField")->setText("FILE");
        QTRY_VERIFY_WITH_TIMEOUT(!sheet->search().isSearching(), kPatience);
        auto* results = sheet->findChild<QTreeWidget*>("searchResults");
        QCOMPARE(results->topLevelItemCount(), 3);
        QVERIFY(results->topLevelItem(0)->text(2).startsWith("Removed"));  // file0 is only in __removed
        results->setCurrentItem(results->topLevelItem(2));
        emit sheet->findChild<QComboBox*>("searchVersions")->activated(1);
        const QString archived = sheet->selectedVersionPath(2);
        QVERIFY(archived.startsWith(QString::fromStdString(destination + "/__changed/")));

        // Restore… into a chosen folder: the window is the restore's until it has ended.
        sheet->findChild<QPushButton*>("searchRestore")->click();
        QVERIFY(awaitDialog("restoreTargetDialog")->informativeText().contains(QString::fromStdString(source + "/file2")));
        restoreInto(restored);
        QCOMPARE(app_->window()->startButton()->text(), text("cancelbutton"));
        QMessageBox* outcome = awaitDialog("restoreOutcome");
        QVERIFY(outcome->informativeText().startsWith("1 file restored (3"));
        QCOMPARE(ferrovane::test::readFile(restored + "/file2"), std::string(3000, 'x'));
        QCOMPARE(app_->window()->startButton()->text(), text("syncbutton"));
        outcome->accept();

        // A different file at the target is refused until Replace, which puts it in the trash.
        ferrovane::test::writeFile(restored + "/file2", "mine");
        for (const char* answer : {"cancelbuttontitle", "restorereplace"}) {
            app_->restoreController().restoreVersion(QString::fromStdString(destination), archived, app_->window());
            restoreInto(restored);
            QMessageBox* conflict = awaitDialog("restoreConflictDialog");
            QVERIFY(conflict->informativeText().contains(QString::fromStdString(restored + "/file2")));
            clickButton(conflict, answer);
            QTRY_VERIFY_WITH_TIMEOUT(!app_->restoreController().isRunning(), kPatience);
            QCOMPARE(ferrovane::test::readFile(restored + "/file2"), answer[0] == 'c' ? "mine" : std::string(3000, 'x'));
        }
        QCOMPARE(ferrovane::test::readFile(*home_ / "data/Trash/files/file2"), "mine");
        QCOMPARE(descriptorsUnder(destination).join(" | "), QString());
    }

    void aFolderComesBackAsTheOlderRunRecordedItFromTheBrowserAndFromItsArchivedVersion() {
        std::string destination = makeDir("dest"), source = makeDir("Projects");
        const std::string mirror = destination + "/Projects", first = "2026-11-20 10.00.00 +0000",
                          second = "2026-11-21 10.00.00 +0000";
        startOn(destination, {source});
        ferrovane::test::buildTree(mirror, {{"page 2.txt", "one"}, {"page 10.txt", "ten"}, {"sub/c.txt", "sea"}, {"sub/d.txt", "dee"}});
        ferrovane::test::recordRun(destination, first, {source});
        const std::string asFirstRecorded = ferrovane::test::treeDigest(mirror);
        // The second run changed page 2 and removed page 10, archiving both, and added e.txt.
        for (auto [name, archive] : {std::pair{"page 2.txt", "__changed"}, std::pair{"page 10.txt", "__removed"}}) {
            fs::create_directories(destination + "/" + archive + "/" + second + "/Projects");
            fs::rename(mirror + "/" + name, destination + "/" + archive + "/" + second + "/Projects/" + name);
        }
        ferrovane::test::buildTree(mirror, {{"page 2.txt", "two"}, {"e.txt", "new"}});
        ferrovane::test::recordRun(destination, second, {source});

        // Browse Backups: the runs newest first; the older one's files, its folder restored.
        app_->window()->browseAction()->trigger();
        auto* browser = awaitDialog<FVBackupBrowser>("backupBrowser");
        QTreeWidget* runs = browser->runList();
        QCOMPARE(runs->topLevelItemCount(), 2);
        QCOMPARE(runs->topLevelItem(1)->text(1), "4");
        runs->setCurrentItem(runs->topLevelItem(1));
        QTRY_VERIFY_WITH_TIMEOUT(browser->treeModel() && browser->treeModel()->rowCount() == 1, kPatience);
        FVRunTreeModel* model = browser->treeModel();
        QModelIndex projects = model->index(0, 0);
        QCOMPARE(model->data(projects, Qt::DisplayRole).toString(), "Projects");
        browser->fileTree()->expand(projects);
        QTRY_COMPARE_WITH_TIMEOUT(model->rowCount(projects), 3, kPatience);
        QCOMPARE(model->data(model->index(0, 0, projects), Qt::DisplayRole).toString(), "page 2.txt");  // before page 10
        browser->fileTree()->selectionModel()->select(projects, QItemSelectionModel::Select | QItemSelectionModel::Rows);
        browser->findChild<QPushButton*>("browseRestore")->click();
        restoreInto(makeDir("fromBrowser"));
        awaitDialog("restoreOutcome")->accept();
        QCOMPARE(ferrovane::test::treeDigest(*work_ / "fromBrowser/Projects"), asFirstRecorded);

        // The search's archived version of the folder holds only what the second run displaced;
        // restored, it is the whole folder as the run before recorded it.
        app_->restoreController().restoreVersion(QString::fromStdString(destination),
                                                 QString::fromStdString(destination + "/__changed/" + second + "/Projects"),
                                                 app_->window());
        restoreInto(makeDir("fromSearch"));
        awaitDialog("restoreOutcome")->accept();
        QCOMPARE(ferrovane::test::treeDigest(*work_ / "fromSearch/Projects"), asFirstRecorded);
        QCOMPARE(descriptorsUnder(destination).join(" | "), QString());
    }

    void aRunWithErrorsStaysVisibleAndOffersToEmptyAConfirmedSource() {
        std::string destination = makeDir("dest"), photos = makeDir("Photos"), mail = makeDir("Mail");
        // What the last run left, as a restart finds it.
        const std::vector<std::string> errors = {
            "ERROR: Cannot read file: " + photos + "/secret.key (Permission denied)",
            "ERROR: Not removing the contents of " + destination + "/Mail: its source " + mail + " is empty",
        };
        FVRunOutcome(FVRunOutcome::State::Finished, QDateTime::currentDateTime(), errors)
            .save(QString::fromStdString(destination));
        startOn(destination, {mail, photos});
        for (int row = 0; row < 2; ++row)
            app_->backupSetController().arrangedObjects()[size_t(row)]->setValue(FVSourceKey::lastBackupDate, PlistDate{1.7e9});
        emit app_->window()->sourceListView()->model()->layoutChanged();
        QVERIFY2(cell(1, FVSourceListModel::LastRunColumn).endsWith("finished with 1 error"), qPrintable(cell(1, 4)));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("finished with 2 errors"));
        QVERIFY(app_->window()->showErrorsButton()->isVisibleTo(app_->window()));

        app_->window()->showErrorsButton()->click();
        auto* panel = app_->window()->findChild<FVErrorPanel*>();
        QVERIFY(panel && panel->text().contains("Permission denied"));
        panel->findChild<QPushButton*>("confirmEmptyButton")->click();
        QVERIFY(awaitDialog()->text().contains("Mail"));
        clickButton(awaitDialog(), "confirmemptyaction");
        auto stored = readSourcesOf(destination);
        QCOMPARE(stored[0]->sourcePath(), mail);
        QVERIFY(stored[0]->value("emptySourceConfirmed").value_or(PlistValue(false)).boolValue());
        QVERIFY(!stored[1]->value("emptySourceConfirmed").has_value());
        panel->accept();
    }

    void aStopRightAfterTheStartOrByClosingTheWindowWritesNoResults() {
        std::string destination = makeDir("dest"), source = makeDir("Many");
        for (int i = 0; i < 400; ++i) ferrovane::test::writeFile(source + "/f" + std::to_string(i), std::string(4096, 'y'));
        startOn(destination, {source});
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        // Cancel in the same turn of the event loop that started the session.
        auto stopAtStart = connect(app_.get(), &AppController::runStarted, app_.get(), [this] { app_->window()->startButton()->click(); });
        app_->window()->startButton()->click();
        QVERIFY(ended.wait(kPatience));
        disconnect(stopAtStart);

        // The run has stopped already: an information, not a question.
        QMessageBox* box = awaitDialog();
        QCOMPARE(box->text(), text("cancelalert"));
        QVERIFY(box->icon() == QMessageBox::Information && box->buttons().size() == 1);
        QCOMPARE(app_->runOutcome().state(), FVRunOutcome::State::Stopped);
        // The session's thread may or may not have begun the source when the stop reaches it: the
        // row says either, never a result (rows a stop did or did not reach are held by hooks in
        // aStopOrAGoneDiskMarksOnlyTheSourceItInterrupted).
        const QString row = cell(0, FVSourceListModel::LastRunColumn);
        QVERIFY2(row == text("sourcenotbackedup") || row.contains("stopped"), qPrintable(row));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("stopped"));
        QVERIFY(app_->window()->startButton()->isEnabled() && !app_->isBackupRunning());
        box->accept();
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);

        // Closing during a run asks first, then stops the run and closes.
        connect(app_.get(), &AppController::runStarted, app_.get(), [this] {
            QVERIFY(!app_->window()->close());
            QCOMPARE(awaitDialog()->text(), text("quitwhilerunning"));
            clickButton(awaitDialog(), "stopandquitbutton");
        });
        app_->window()->startButton()->click();
        QVERIFY(ended.wait(kPatience));
        QTRY_VERIFY_WITH_TIMEOUT(!app_->window()->isVisible(), kPatience);
        QVERIFY(!readSourcesOf(destination)[0]->value(FVSourceKey::lastBackupDate).has_value());
    }

    void theKeyboardReachesEveryControlWithAVisibleFocusAndAccessKeys() {
        std::string destination = makeDir("dest"), a = makeDir("A"), b = makeDir("B");
        startOn(destination, {a, b});
        FVMainWindow* w = app_->window();
        w->activateWindow();
        QTRY_VERIFY_WITH_TIMEOUT(w->isActiveWindow(), kPatience);
        // Tab leaves the list and goes round every control, the list one stop among them.
        w->sourceListView()->setFocus(Qt::TabFocusReason);
        QList<QWidget*> visited;
        for (int press = 0; press < 12; ++press) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            visited << QApplication::focusWidget();
        }
        for (QWidget* control : std::initializer_list<QWidget*>{w->addSourceButton(), w->removeSourceButton(), w->targetPopup(),
                                                                 w->optionsButton(), w->searchButton(), w->startButton()})
            QVERIFY2(visited.contains(control), qPrintable(control->objectName()));
        QCOMPARE(visited.count(w->sourceListView()), 1);
        // The focused button is ringed in the highlight colour; the others are not.
        w->startButton()->setFocus(Qt::TabFocusReason);
        auto ringed = [](QWidget* button) {
            const QImage image = button->grab().toImage();
            const QRgb highlight = button->palette().color(QPalette::Highlight).rgb();
            int count = 0;
            for (int x = 0; x < image.width(); ++x) count += image.pixel(x, 1) == highlight || image.pixel(x, 2) == highlight;
            return count > image.width() / 2;
        };
        QVERIFY(ringed(w->startButton()) && !ringed(w->optionsButton()));
        // Space on a row opens its mode popup.
        QTest::keyClick(w->sourceListView(), Qt::Key_Down);
        QTest::keyClick(w->sourceListView(), Qt::Key_Space);
        QTRY_VERIFY_WITH_TIMEOUT(QApplication::activePopupWidget(), kPatience);
        QTest::keyClick(QApplication::activePopupWidget(), Qt::Key_Escape);

        // One access key per item in each menu, and one per menu title and button in the window.
        auto eachHasItsOwnKey = [](const QStringList& texts) {
            QSet<QChar> keys;
            for (const QString& item : texts) {
                const QChar key = accessKey(item);
                QVERIFY2(!key.isNull() && !keys.contains(key), qPrintable(item));
                keys << key;
            }
        };
        QStringList window{w->startButton()->text(), w->optionsButton()->text(), w->searchButton()->text(),
                           w->showErrorsButton()->text()};
        QList<QMenu*> menus{w->addSourceButton()->menu()};
        for (QAction* action : w->menuBar()->actions()) {
            window << action->text();
            menus << action->menu();
        }
        eachHasItsOwnKey(window);
        for (QMenu* menu : menus) {
            QStringList items;
            for (QAction* action : menu->actions())
                if (!action->isSeparator()) items << action->text();
            eachHasItsOwnKey(items);
        }
    }

    void aChoiceInASelectedRowChangesTheWholeSelectionAsDoRemovalAndRestore() {
        std::string destination = makeDir("dest");
        std::vector<std::string> sources;
        for (int i = 0; i < 50; ++i) {
            sources.push_back(makeDir("source" + std::to_string(100 + i)));
            ferrovane::test::writeFile(sources.back() + "/note", "note " + std::to_string(i));
        }
        startOn(destination, sources);
        FVSourceListView* list = app_->window()->sourceListView();
        QCOMPARE(list->model()->rowCount(), 50);
        // Rows 10 to 19 chosen, then a click on the popup of row 12 and a choice there.
        list->selectRows(10, 10);
        auto* popup = qobject_cast<QComboBox*>(list->indexWidget(list->model()->index(12, FVSourceListModel::ModeColumn)));
        list->scrollTo(list->model()->index(12, 0));
        QTest::mouseClick(popup, Qt::LeftButton);
        if (QApplication::activePopupWidget()) QTest::keyClick(QApplication::activePopupWidget(), Qt::Key_Escape);
        popup->setCurrentIndex(popup->findData(int(FVSourceMode::ExcludePath)));
        emit popup->activated(popup->currentIndex());
        QCOMPARE(list->selectedRows().size(), 10);
        const std::vector<FVSourceItemPtr> stored = readSourcesOf(destination);
        for (int row = 0; row < 50; ++row) {
            const int64_t want = row >= 10 && row < 20 ? int64_t(FVSourceMode::ExcludePath) : int64_t(FVSourceMode::Backup);
            QCOMPARE(stored[size_t(row)]->enabled(), want);
            auto* shown = qobject_cast<QComboBox*>(list->indexWidget(list->model()->index(row, FVSourceListModel::ModeColumn)));
            QCOMPARE(shown->currentData().toLongLong(), want);
        }
        // Delete removes the selection.
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(readSourcesOf(destination).size(), size_t(40));

        // After a backup, Restore from Backup… on two selected rows brings both back.
        QVERIFY(backUp());
        const std::string first = sources[0], last = sources[49];
        fs::remove(first + "/note");
        fs::remove(last + "/note");
        list->selectRows(0, 1);
        list->selectionModel()->select(list->model()->index(39, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
        list->setRestoreEnabled(true);
        QTimer::singleShot(0, [] {
            QTRY_VERIFY_WITH_TIMEOUT(QApplication::activePopupWidget(), kPatience);
            QTest::keyClick(QApplication::activePopupWidget(), Qt::Key_Down);
            QTest::keyClick(QApplication::activePopupWidget(), Qt::Key_Return);
        });
        const QRect row = list->visualRect(list->model()->index(0, 0));
        QContextMenuEvent click(QContextMenuEvent::Mouse, row.center(), list->viewport()->mapToGlobal(row.center()));
        QApplication::sendEvent(list->viewport(), &click);
        QMessageBox* where = awaitDialog("restoreTargetDialog");
        QCOMPARE(where->text(), "Restore “2 items”");
        clickButton(where, "restoreoriginal");
        awaitDialog("restoreOutcome")->accept();
        QCOMPARE(ferrovane::test::readFile(first + "/note"), "note 0");
        QCOMPARE(ferrovane::test::readFile(last + "/note"), "note 49");
    }

    void everyWindowFitsALaptopAtScaleTwoAndVerifyListsWhatDiffers() {
        // 1366 by 768 pixels at a scale of 2.
        const QSize room(683, 384);
        std::string destination = makeDir("dest"), source = makeDir("Letters");
        ferrovane::test::writeFile(source + "/a", "a");
        startOn(destination, {source});
        QVERIFY(backUp());
        // A copy changed in the destination, for the verify sheet to list.
        ferrovane::test::writeFile(destination + "/Letters/a", "b");
        FVMainWindow* w = app_->window();
        QVERIFY(w->screen()->availableGeometry().contains(w->frameGeometry()));
        auto fits = [&room](QWidget* window) {
            const QSize least = window->minimumSizeHint();
            return least.width() <= room.width() && least.height() <= room.height();
        };
        QVERIFY2(fits(w), qPrintable(QString("%1x%2").arg(w->minimumSizeHint().width()).arg(w->minimumSizeHint().height())));
        // As small as that, Name and Path still share a third of the list.
        w->resize(room);
        FVSourceListView* list = w->sourceListView();
        auto namesRoom = [list] {
            return list->columnWidth(FVSourceListModel::NameColumn) + list->columnWidth(FVSourceListModel::PathColumn);
        };
        QTRY_VERIFY2_WITH_TIMEOUT(list->viewport()->width() < room.width() && namesRoom() * 3 >= list->viewport()->width(),
                                  qPrintable(QString("%1 of %2").arg(namesRoom()).arg(list->viewport()->width())), kPatience);
        w->optionsButton()->click();
        w->searchButton()->click();
        w->browseAction()->trigger();
        w->verifyAction()->trigger();
        w->showLogAction()->trigger();
        w->aboutAction()->trigger();
        app_->restoreController().restoreSourceItems(QString::fromStdString(destination), {QString::fromStdString(source)});
        for (const char* name : {"optionsPanel", "searchSheet", "backupBrowser", "verifySheet", "logViewer", "aboutBox",
                                 "restoreTargetDialog"}) {
            QDialog* dialog = awaitDialog<QDialog>(name);
            QVERIFY2(fits(dialog), qPrintable(QString("%1: %2x%3").arg(name).arg(dialog->minimumSizeHint().width())
                                                  .arg(dialog->minimumSizeHint().height())));
        }
        auto* verify = awaitDialog<FVVerifySheet>("verifySheet");
        QTRY_VERIFY_WITH_TIMEOUT(!verify->isVerifying(), kPatience);
        QCOMPARE(verify->findings()->topLevelItemCount(), 1);
        QCOMPARE(verify->findings()->topLevelItem(0)->text(0) + " " + verify->findings()->topLevelItem(0)->text(1),
                 QString::fromStdString("damaged " + destination + "/Letters/a"));
        QVERIFY(verify->outcome()->text().endsWith(": 1 damaged"));
        QCOMPARE(descriptorsUnder(destination).join(" | "), QString());
    }

    void optionsSheetSchedulesTheDestination() {
        std::string destination = makeDir("B");
        startOn(destination);
        QCOMPARE(app_->window()->scheduleLine()->text(), text("schedulelineoff"));
        // A weekly schedule on Friday at 03:30, and a run whenever the disk comes, at most every two hours.
        // The hooks set on the command line are named, and only those.
        app_->optionsPanelController().allOptions()->set(FVOptionKey::afterHook, "umount /backup");
        app_->window()->optionsButton()->click();
        auto* panel = awaitDialog<FVOptionsPanel>();
        QCOMPARE(panel->findChild<QLabel*>("hooks")->text(), QString::fromStdString(FVStrings::format("optionshookafter", "umount /backup")));
        QVERIFY(panel->findChild<QComboBox*>("syncMode")->isEnabled());
        panel->findChild<QCheckBox*>("automationEnabled")->setChecked(true);
        auto* interval = panel->findChild<QComboBox*>("automationInterval");
        interval->setCurrentIndex(interval->findData(1));
        auto* weekday = panel->findChild<QComboBox*>("automationWeekday");
        weekday->setCurrentIndex(weekday->findData(5));
        // The time takes typing as soon as it has the focus, wherever it was clicked.
        auto* time = panel->findChild<QTimeEdit*>("automationTime");
        auto* digits = time->findChild<QLineEdit*>();
        QTest::mouseClick(digits, Qt::LeftButton, {}, {4, digits->height() / 2});  // on the hour
        QTest::keyClicks(time, "0330");
        QCOMPARE(time->time(), QTime(3, 30));
        QTest::mouseClick(digits, Qt::LeftButton, {}, {digits->width() - 4, digits->height() / 2});
        QTest::keyClicks(time, "45");
        QCOMPARE(time->time(), QTime(3, 45));
        time->setTime(QTime(3, 30));
        QCOMPARE(time->time(), QTime(3, 30));
        panel->findChild<QCheckBox*>("automationVerifyMonthly")->setChecked(true);
        panel->findChild<QCheckBox*>("backUpWhenConnected")->setChecked(true);
        panel->findChild<QSpinBox*>(FVOptionKey::connectedRunIntervalMinutes)->setValue(120);
        auto* keepFree = panel->findChild<QSpinBox*>(FVOptionKey::keepFreeSpaceMB);
        QCOMPARE(keepFree->text(), text("optionsautomatic"));  // 0 reads as what it means
        keepFree->setValue(2048);
        panel->accept();

        std::string uuid = app_->optionsPanelController().uuid();
        std::string label = FVLaunchAgentManager::jobLabel(uuid);
        std::string timer = ferrovane::test::readFile(*home_ / ("jobs/" + label + ".timer"));
        QVERIFY2(timer.find("OnCalendar=Fri *-*-* 03:30:00") != std::string::npos, timer.c_str());
        const std::string verifyTimer = *home_ / ("jobs/" + FVLaunchAgentManager::jobLabel(uuid, FVJobKind::Verify) + ".timer");
        QVERIFY(ferrovane::test::readFile(verifyTimer).find("OnCalendar=monthly\n") != std::string::npos);
        QVERIFY(!runner_->calls.empty() && runner_->calls.back()[0] == "systemctl");
        PlistDict stored = readSettingsOf(destination);
        QCOMPARE(stored.integerValue(FVOptionKey::automationWeekdaySelection), 5);
        QCOMPARE(stored.stringValue(FVOptionKey::UUID).value_or(""), uuid);
        QVERIFY(stored.boolValue(FVOptionKey::backUpWhenConnected));
        QCOMPARE(stored.integerValue(FVOptionKey::connectedRunIntervalMinutes), 120);
        QCOMPARE(stored.integerValue(FVOptionKey::keepFreeSpaceMB), 2048);

        // "+" offers names and patterns to leave out: the options' list, where a line that is
        // no pattern keeps the sheet open until it is mended.
        app_->window()->excludeAction()->trigger();
        panel = awaitDialog<FVOptionsPanel>();
        QVERIFY(panel->findChild<QCheckBox*>(FVOptionKey::excludeCacheFolders)->isChecked());  // a new destination
        auto* patterns = panel->findChild<QPlainTextEdit*>(FVOptionKey::excludePatterns);
        patterns->insertPlainText("node_modules\n[bad\n");
        panel->accept();
        QVERIFY(panel->isVisible());
        QVERIFY2(panel->findChild<QLabel*>("excludeProblem")->text().contains("line 2: a \"[\" without its \"]\""),
                 qPrintable(panel->findChild<QLabel*>("excludeProblem")->text()));
        patterns->setPlainText("node_modules\n*.tmp\n");
        panel->findChild<QCheckBox*>(FVOptionKey::excludeNodumpItems)->setChecked(true);
        panel->accept();
        stored = readSettingsOf(destination);
        std::vector<std::string> texts;
        for (const FVExcludePattern& pattern : FVOptionTable::readPatterns(stored, nullptr)) texts.push_back(pattern.text());
        QCOMPARE(texts, (std::vector<std::string>{"node_modules", "*.tmp"}));
        QVERIFY(stored.boolValue(FVOptionKey::excludeNodumpItems) && stored.boolValue(FVOptionKey::excludeCacheFolders));
        // A bare name in the source list is left out by name or disabled, never backed up.
        app_->backupSetController().addBackupPath("build", FVSourceMode::ExcludeName, 0);
        QAbstractItemModel* model = app_->window()->sourceListView()->model();
        const QModelIndex mode = model->index(0, FVSourceListModel::ModeColumn);
        QVERIFY(!model->setData(mode, qlonglong(FVSourceMode::Backup), Qt::EditRole));
        QVERIFY(model->setData(mode, qlonglong(FVSourceMode::Disabled), Qt::EditRole));
        QString line = app_->window()->scheduleLine()->text();
        QVERIFY2(line.contains("weekly on Friday at 03:30 and when the disk is connected, at most once in 2 hours") &&
                     line.contains("Last scheduled run: none yet"), qPrintable(line));

        // A schedule that cannot be set up is told once per reason, with the commands that load it by hand.
        auto closeOptions = [this] {
            app_->window()->optionsButton()->click();
            awaitDialog<FVOptionsPanel>()->accept();
        };
        runner_->failWith = "Failed to connect to bus";
        closeOptions();
        QMessageBox* alert = awaitDialog("alert-automationfailed");
        QVERIFY(alert->informativeText().contains("Failed to connect to bus"));
        QVERIFY2(alert->informativeText().contains(QString::fromStdString("enable --now " + label + ".timer")),
                 qPrintable(alert->informativeText()));
        alert->accept();
        closeOptions();
        QVERIFY(!openDialog(app_->window(), "alert-automationfailed"));
        // Once it worked again, a new failure is told again.
        runner_->failWith.clear();
        closeOptions();
        runner_->failWith = "Failed to connect to bus";
        closeOptions();
        awaitDialog("alert-automationfailed")->accept();
        runner_->failWith.clear();

        // Removing the destination removes its job.
        app_->removeTargetWidgetClicked();
        clickButton(awaitDialog(), "removebutton");
        QTRY_VERIFY_WITH_TIMEOUT(!fs::exists(*home_ / ("jobs/" + label + ".timer")), kPatience);
        QVERIFY(!fs::exists(verifyTimer));
    }

    void anAwayOrOverdueDestinationChangesNothingAndShowsItsBannerUntilAGoodRun() {
        std::string destination = makeDir("Disk"), source = makeDir("Letters");
        ferrovane::test::writeFile(source + "/a", "a");
        const std::string uuid = "0A1B2C3D-0000-4000-8000-000000000001";
        PlistDictPtr options = FVConfigurationFile::newDestinationOptions();
        options->set(FVOptionKey::UUID, uuid);
        options->set(FVOptionKey::automationEnabled, int64_t(1));  // daily at 14:00
        FVConfigurationFile::writeSettingsForSourceConfiguration({FVSourceItem::make(source, FVSourceMode::Backup)}, *options,
                                                                 FVConfigurationFile::currentPath(destination));
        // The last good run ten days ago, the schedule's last attempt yesterday without the disk.
        const std::time_t now = std::time(nullptr);
        FVJobStatusStore store(statusFolder());
        QVERIFY(store.record(uuid, destination, {now - 10 * 86400, FVJobTrigger::Schedule, FVJobOutcome::Finished, ""}));
        QVERIFY(store.record(uuid, destination, {now - 86400, FVJobTrigger::Schedule, FVJobOutcome::NotConnected, ""}));
        startOn(destination);
        FVOverdueBanner* banner = app_->window()->overdueBanner();
        QVERIFY(banner->isVisibleTo(app_->window()));
        QVERIFY2(banner->text().startsWith(QString::fromStdString("No backup to " + destination + " since ")) &&
                     banner->text().endsWith("(10 days): the disk was not connected."),
                 qPrintable(banner->text()));
        QVERIFY(app_->window()->scheduleLine()->text().contains("daily at 14:00"));
        QVERIFY(app_->window()->scheduleLine()->text().contains("the disk was not connected"));
        const QString notice = banner->text();

        // Away while the window is open: the folder an unmounted disk leaves behind is no
        // destination, and nothing changes until the disk is back.
        QVERIFY(app_->window()->progressInfo()->text().contains("free"));
        fs::rename(destination, destination + ".away");
        fs::create_directories(destination);
        app_->addSourcePaths({QString::fromStdString(makeDir("More"))}, 0);
        QMessageBox* refused = awaitDialog("alert-destinationaway");
        QCOMPARE(refused->text(), awayLine(destination));
        refused->accept();
        QCOMPARE(cover()->message(), awayLine(destination));
        QVERIFY(app_->window()->progressInfo()->text().isEmpty() && !app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->window()->optionsButton()->isEnabled() && !app_->window()->addSourceButton()->isEnabled());
        QVERIFY(!fs::exists(FVConfigurationFile::currentPath(destination)));
        // Started without it, its job's status still tells, without a button that cannot run.
        fs::remove(destination);
        launch();
        QTRY_COMPARE_WITH_TIMEOUT(cover()->message(), awayLine(destination), kPatience);
        banner = app_->window()->overdueBanner();
        QCOMPARE(banner->text(), notice);
        QVERIFY(!banner->backUpNowButton()->isVisibleTo(banner));
        // Back, it is opened by itself with its list.
        fs::rename(destination + ".away", destination);
        QTRY_VERIFY_WITH_TIMEOUT(cover()->isFullyHidden(), kPatience);
        QCOMPARE(app_->backupSetController().backupSetPaths(), std::vector<std::string>{source});
        QVERIFY(app_->window()->startButton()->isEnabled() && app_->window()->progressInfo()->text().contains("free"));
        QVERIFY(banner->backUpNowButton()->isVisibleTo(banner));

        // A run that cannot fit tells why (nobody stopped it), and the disk counts as full.
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        app_->optionsPanelController().allOptions()->set(FVOptionKey::keepFreeSpaceMB, int64_t{1000000000});
        banner->backUpNowButton()->click();
        QVERIFY(ended.wait(kPatience));
        QVERIFY2(cover()->message().startsWith("Not enough room on "), qPrintable(cover()->message()));
        QVERIFY(store.read(uuid)->lastAttempt->outcome == FVJobOutcome::NoSpace);
        QMessageBox* noRoom = awaitDialog("alert-noroomalert");
        QCOMPARE(noRoom->text(), QString("Not enough room on “Disk”"));
        QVERIFY(noRoom->informativeText().contains(QString::fromStdString("Not enough room on " + destination + ": ")));
        QCOMPARE(app_->runOutcome().state(), FVRunOutcome::State::NoRoom);
        for (const QString& shown : {app_->window()->lastRunLine()->text(), cell(0, FVSourceListModel::LastRunColumn)})
            QVERIFY2(!shown.contains("stopped") && !shown.isEmpty(), qPrintable(shown));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("not started: not enough room on the disk"));
        noRoom->accept();
        app_->optionsPanelController().allOptions()->set(FVOptionKey::keepFreeSpaceMB, int64_t{0});

        // Its Back Up Now runs; the good run ends the notice and is kept as the window's.
        banner->backUpNowButton()->click();
        QVERIFY(ended.wait(kPatience));
        QVERIFY(!banner->isVisibleTo(app_->window()));
        std::optional<FVJobStatus> status = store.read(uuid);
        QVERIFY(status && status->lastAttempt && status->lastAttempt->trigger == FVJobTrigger::Manual);
        QVERIFY(status->lastAttempt->outcome == FVJobOutcome::Finished && status->lastSuccess >= now);
        // The schedule's own last attempt is still the one it tells.
        QVERIFY(app_->window()->scheduleLine()->text().contains("the disk was not connected"));
    }

    void sourcesComeFromPlusOrFromASecondStart() {
        const QString name = QString("ferrovane-test-%1").arg(QCoreApplication::applicationPid());
        FVSingleInstance first(name), second(name);
        QVERIFY(!first.handOverToRunningInstance({}));  // nobody there: this one listens
        std::string destination = makeDir("dest"), a = makeDir("Pictures"), b = makeDir("Music"), dropped = makeDir("Dropped");
        ferrovane::test::writeFile(*work_ / "notes.txt", "n");
        startOn(destination);
        app_->window()->addFoldersAction()->trigger();
        auto* folders = awaitDialog<QFileDialog>("addFoldersDialog");
        QCOMPARE(folders->fileMode(), QFileDialog::Directory);
        emit folders->filesSelected({QString::fromStdString(a), QString::fromStdString(b)});
        folders->reject();
        app_->window()->addFilesAction()->trigger();
        auto* files = app_->window()->findChild<QFileDialog*>("addFilesDialog");
        QCOMPARE(files->fileMode(), QFileDialog::ExistingFiles);
        files->selectFile(QString::fromStdString(*work_ / "notes.txt"));
        QMetaObject::invokeMethod(files, "accept");
        QCOMPARE(app_->backupSetController().backupSetPaths(), (std::vector<std::string>{*work_ / "notes.txt", a, b}));
        // A wider window widens the names too (they share it with the path and, until those show
        // their whole texts, with Size and Last backup).
        QTableView* list = app_->window()->sourceListView();
        const int narrow = list->columnWidth(FVSourceListModel::NameColumn);
        app_->window()->resize(app_->window()->width() + 400, app_->window()->height());
        QTRY_VERIFY_WITH_TIMEOUT(list->columnWidth(FVSourceListModel::NameColumn) > narrow + 50, kPatience);
        // Another start of the program hands its paths over to this one.
        connect(&first, &FVSingleInstance::activationRequested, app_.get(), &AppController::activateFromAnotherStart);
        QVERIFY(second.handOverToRunningInstance({QString::fromStdString(dropped)}));
        QTRY_COMPARE_WITH_TIMEOUT(app_->backupSetController().backupSetPaths().front(), dropped, kPatience);
    }

    void aStopOrAGoneDiskMarksOnlyTheSourceItInterrupted() {
        // On a disk of its own where it may be unmounted under the run.
        std::string destination = makeDir("disk");
        const bool ownDisk = geteuid() == 0 && mount("tmpfs", destination.c_str(), "tmpfs", 0, "size=64m") == 0;
        struct Unmount {
            std::string path;
            ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
        } unmount{ownDisk ? destination : ""};
        std::string single = *work_ / "notes.txt", busy = makeDir("Busy"), later = makeDir("Later");
        ferrovane::test::writeFile(single, "a single file");
        for (const std::string& folder : {busy, later})
            for (int i = 0; i < 3; ++i) ferrovane::test::writeFile(folder + "/f" + std::to_string(i), std::string(5000, 'z'));
        startOn(destination, {single, busy, later});
        auto lastRun = [this](const std::string& path) {
            const auto& items = app_->backupSetController().arrangedObjects();
            for (size_t row = 0; row < items.size(); ++row)
                if (items[row]->sourcePath() == path) return cell(int(row), FVSourceListModel::LastRunColumn);
            return QString();
        };
        QVERIFY(backUp());
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        const QString laterBefore = lastRun(later);
        QVERIFY2(laterBefore.contains("finished, 4 of"), qPrintable(laterBefore));

        // Stopped while copying into Busy: the file before it is unchanged, Later was never reached.
        // Progress counts a copy once it is published, and the bar moves with the data written
        // within a file of three chunks.
        ferrovane::test::writeFile(busy + "/new", std::string(3 << 20, 'n'));
        // The run starts once the cover has scrolled in: the hooks are awaited with events going.
        ferrovane::test::TestHooks hooks(*home_ / "hooks");
        hooks.arm("during-data-copy", "Busy/new");
        hooks.arm("between-files", "Busy/new");
        app_->window()->startButton()->click();
        QTRY_VERIFY_WITH_TIMEOUT(hooks.waitUntilReached("during-data-copy", 0), kPatience);
        const QString noneCopied = "0 of 1 items copied";
        QTRY_VERIFY_WITH_TIMEOUT(cover()->detailMessage().startsWith(noneCopied), kPatience);
        QTRY_VERIFY_WITH_TIMEOUT(app_->window()->progressView()->progress() > 0, kPatience);
        const double firstChunk = app_->window()->progressView()->progress();
        hooks.arm("after-data-copy", "Busy/new");
        hooks.release("during-data-copy");
        QTRY_VERIFY_WITH_TIMEOUT(hooks.waitUntilReached("after-data-copy", 0), kPatience);
        QTRY_VERIFY_WITH_TIMEOUT(app_->window()->progressView()->progress() > firstChunk, kPatience);
        QVERIFY2(cover()->detailMessage().startsWith(noneCopied), qPrintable(cover()->detailMessage()));
        hooks.release("after-data-copy");
        QTRY_VERIFY_WITH_TIMEOUT(hooks.waitUntilReached("between-files", 0), kPatience);
        QTRY_VERIFY_WITH_TIMEOUT(cover()->detailMessage().startsWith("1 of 1 items copied, 3.1 MB of 3.1 MB"), kPatience);
        app_->window()->startButton()->click();
        hooks.release("between-files");
        QVERIFY(ended.wait(kPatience));
        QVERIFY(!app_->window()->findChild<FVErrorPanel*>());
        QMessageBox* stopped = awaitDialog();
        QCOMPARE(stopped->informativeText(), text("cancelalertlong.one"));
        stopped->accept();
        QVERIFY2(lastRun(single).endsWith(text("sourcelastrununchanged").section("{}", 1)), qPrintable(lastRun(single)));
        QVERIFY2(lastRun(busy).endsWith("stopped, 1 item copied"), qPrintable(lastRun(busy)));
        QCOMPARE(lastRun(later), laterBefore);

        // A source the run cannot read (gone, as under a FUSE driver that died) says so and
        // keeps its last backup, also in the destination's configuration.
        fs::rename(later, later + ".gone");
        QVERIFY(backUp());
        QCOMPARE(lastRun(later), "Could not be read · last backup " + laterBefore.section(" · ", 0, 0));
        for (const FVSourceItemPtr& stored : readSourcesOf(destination))
            QCOMPARE(stored->value("lastUnreadableDate").has_value(), stored->sourcePath() == later);
        fs::rename(later + ".gone", later);
        if (!ownDisk) QSKIP("unmounting the destination under a run needs root");

        // Unmounted under the run, with two files held in their copies (one on each copy thread):
        // one outcome that names the cause and one count of what was not copied, in the row, the
        // line under the list, the cover, the error panel, the notification and the launcher.
        for (const char* name : {"newer", "newest"}) ferrovane::test::writeFile(busy + "/" + name, std::string(3 << 20, 'n'));
        hooks.arm("data-copy-under-way", "Busy/newer");
        hooks.arm("during-data-copy", "Busy/newest");
        hooks.arm("unmount-seen", "", false);
        QWidget front;
        front.show();
        front.activateWindow();
        QTRY_VERIFY_WITH_TIMEOUT(!app_->window()->isActiveWindow(), kPatience);
        app_->window()->startButton()->click();
        for (const char* moment : {"data-copy-under-way", "during-data-copy"})
            QTRY_VERIFY_WITH_TIMEOUT(hooks.waitUntilReached(moment, 0), kPatience);
        QVERIFY(umount2(destination.c_str(), MNT_DETACH) == 0);
        QTRY_VERIFY_WITH_TIMEOUT(hooks.waitUntilReached("unmount-seen", 0), kPatience);
        for (const char* moment : {"data-copy-under-way", "during-data-copy"}) hooks.release(moment);
        QVERIFY(ended.wait(kPatience));
        const std::string failure = app_->runOutcome().destinationFailure();
        QVERIFY2(failure.find("unmounted unexpectedly (" + destination + ")") != std::string::npos, failure.c_str());
        const QString notCopied = QString::fromStdString(FVStrings::formatPlural("backupdiskfailed", 2, "disk"));
        // The disk is away now: the list waits for its return, the outcome line keeps the cause.
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("2 items not copied: " + QString::fromStdString(FVRunOutcome::causeOf(failure))));
        // However long the cause, the line shortens rather than widen the window past a laptop at scale 2.
        QVERIFY2(app_->window()->minimumSizeHint().width() <= 683, qPrintable(app_->window()->lastRunLine()->text()));
        auto* panel = awaitDialog<FVErrorPanel>();
        QVERIFY(panel->text().startsWith(QString::fromStdString(failure)));
        QCOMPARE(panel->heading(), notCopied);
        QCOMPARE(notifier_->subtitles.back(), "2 items were not copied.");
        QCOMPARE(app_->launcherEntry().shownCount(), 2);
        // The cover's text stays in view above the panel.
        QCOMPARE(cover()->message(), awayLine(destination));
        QCOMPARE(cover()->detailMessage(), notCopied);
        auto* message = cover()->findChild<QLabel*>("coverMessage");
        QVERIFY(!panel->frameGeometry().intersects(QRect(message->mapToGlobal(QPoint()), message->size())));
        panel->accept();
        QCOMPARE(app_->launcherEntry().shownCount(), 0);
    }

    void launcherEntryShowsThrottledProgressAndClearsIt() {
        ferrovane::test::PrivateBus bus("");
        QVERIFY(bus.ok());
        const QString address = QString::fromStdString(bus.address());
        QDBusConnection sender = QDBusConnection::connectToBus(address, "launcherSender");
        QDBusConnection receiver = QDBusConnection::connectToBus(address, "launcherReceiver");
        QVERIFY(sender.isConnected() && receiver.isConnected());
        LauncherListener listener;
        QVERIFY(receiver.connect({}, {}, "com.canonical.Unity.LauncherEntry", "Update", &listener,
                                 SLOT(update(QDBusMessage))));
        {
            FVLauncherEntry entry(sender);
            entry.setProgress(0.1, 1);
            // Within the interval: only the latest of these goes out, once it has passed.
            entry.setProgress(0.3, 3);
            entry.setProgress(0.5, 5);
            QTRY_COMPARE_WITH_TIMEOUT(listener.updates.size(), size_t(2), kPatience);
            entry.clear();
            QTRY_COMPARE_WITH_TIMEOUT(listener.updates.size(), size_t(3), kPatience);
        }
        QCOMPARE(listener.applications, QStringList(3, "application://ferrovane.desktop"));
        QCOMPARE(listener.updates[0]["progress"].toDouble(), 0.1);
        const QVariantMap& latest = listener.updates[1];
        QCOMPARE(latest["progress"].toDouble(), 0.5);
        QCOMPARE(latest["count"].toLongLong(), 5);
        QVERIFY(latest["progress-visible"].toBool() && latest["count-visible"].toBool());
        QVERIFY(!listener.updates[2]["progress-visible"].toBool() && !listener.updates[2]["count-visible"].toBool());
        QDBusConnection::disconnectFromBus("launcherSender");
        QDBusConnection::disconnectFromBus("launcherReceiver");
    }
};

QTEST_MAIN(AppWindowTest)
#include "AppWindowTests.moc"
