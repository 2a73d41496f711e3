// The main window driven as a user would: destinations, the checks before a run, a real run and
// its cancellation, the options sheet with its schedule, and the search sheet.

#include "app/AppController.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationSearchSheet.h"
#include "app/FVErrorPanel.h"
#include "app/FVMainWindow.h"
#include "app/FVOptionsPanel.h"
#include "app/FVSingleInstance.h"
#include "app/FVSourceListModel.h"
#include "app/FVSourceListView.h"
#include "engine/FVConfigurationFile.h"
#include "engine/FVStrings.h"
#include "support/TempDir.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTimeEdit>
#include <QTest>

#include <filesystem>
#include <memory>

using namespace ferrovane;
using ferrovane::test::TempDir;
namespace fs = std::filesystem;

namespace {

class RecordingRunner final : public FVCommandRunner {
public:
    FVCommandResult run(const std::vector<std::string>& argv) override {
        calls.push_back(argv);
        return {true, 0, ""};
    }
    std::vector<std::vector<std::string>> calls;
};

class RecordingNotifier final : public FVUserNotifier {
public:
    void deliver(const FVUserNotification& n) override { titles.push_back(n.title); }
    std::vector<std::string> titles;
};

QString text(const char* key) { return QString::fromStdString(FVStrings::localized(key)); }

// The alert or sheet currently open on the window, by the name FVAlert gives it.
QMessageBox* openAlert(QWidget* window) {
    for (QMessageBox* box : window->findChildren<QMessageBox*>())
        if (box->isVisible()) return box;
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

std::vector<FVSourceItemPtr> readSourcesOf(const std::string& destination) {
    return FVConfigurationFile::read(FVConfigurationFile::currentPath(destination)).configuration.sources;
}

}  // namespace

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
        app_ = std::make_unique<AppController>(AppEnvironment{root, runner_, notifier_});
        app_->initialiseApplication();
        return *app_;
    }

    FVCoverView* cover() { return app_->window()->coverView(); }
    QString cell(int row, int column) {
        QAbstractItemModel* model = app_->window()->sourceListView()->model();
        return model->data(model->index(row, column), Qt::DisplayRole).toString();
    }

    // Adds the destination through the window and waits until its list is shown.
    void openDestination(const std::string& path) {
        app_->addAndOpenNewDestination(QString::fromStdString(path));
        QTRY_VERIFY(cover()->isFullyHidden());
    }

    std::string makeDir(const std::string& name) {
        std::string path = *work_ / name;
        fs::create_directories(path);
        return path;
    }

    // Clicks the start button and returns the alert it raised.
    QMessageBox* clickStartExpectingAlert() {
        app_->window()->startButton()->click();
        QMessageBox* box = nullptr;
        [&] { QTRY_VERIFY((box = openAlert(app_->window())) != nullptr); }();
        return box;
    }

private slots:
    void initTestCase() {
        home_ = std::make_unique<TempDir>();
        qputenv("HOME", home_->path().c_str());
        qputenv("XDG_CONFIG_HOME", (*home_ / "config").c_str());
        qputenv("FERROVANE_LOG_FILE", (*home_ / "Ferrovane.log").c_str());
        qputenv("FERROVANE_JOB_DIRECTORY", (*home_ / "jobs").c_str());
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
        QApplication::setOrganizationName("Ferrovane");
        QApplication::setApplicationName("Ferrovane");
    }

    void init() {
        work_ = std::make_unique<TempDir>();
        fs::remove_all(*home_ / "jobs");
        QSettings settings;
        settings.clear();
        settings.setValue("suppressDonationRequest", true);
        runner_ = std::make_shared<RecordingRunner>();
        notifier_ = std::make_shared<RecordingNotifier>();
    }

    void cleanup() {
        app_.reset();
        work_.reset();
    }

    void withoutDestinationsTheCoverAsksForOne() {
        // No donation request before the first backup, nor without an address to donate at.
        QSettings().remove("suppressDonationRequest");
        launch();
        QVERIFY(!openAlert(app_->window()));
        QCOMPARE(cover()->message(), text("viewnobackupselected"));
        QVERIFY(!app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->window()->optionsButton()->isEnabled());
    }

    void destinationsAreAddedSelectedRemovedAndRemembered() {
        std::string a = makeDir("A"), b = makeDir("B");
        launch();
        openDestination(a);
        // A new destination gets a complete configuration: the defaults and no sources.
        PlistDict written = readSettingsOf(a);
        for (const auto& [key, value] : FVConfigurationFile::defaultOptions())
            QCOMPARE(written.integerValue(key), value);
        QVERIFY(readSourcesOf(a).empty());
        QVERIFY(app_->window()->startButton()->isEnabled());

        openDestination(b);
        QCOMPARE(QSettings().value("recentBackupsPopupIndex").toInt(), 1);
        openDestination(a);  // known already: selected, not added twice
        QCOMPARE(app_->destinations().count(), 2);
        QCOMPARE(QSettings().value("recentBackupsPopupIndex").toInt(), 0);

        app_->performTargetMenuSelection(1);
        QTRY_VERIFY(cover()->isFullyHidden());
        QCOMPARE(app_->currentTargetPath(), b);
        QCOMPARE(QSettings().value("recentBackupsPopupIndex").toInt(), 1);

        // Reopened at the next start.
        launch();
        QTRY_VERIFY(cover()->isFullyHidden());
        QCOMPARE(app_->currentTargetPath(), b);

        // Removing the last entry selects the first.
        app_->removeTargetWidgetClicked();
        QMessageBox* box = openAlert(app_->window());
        QVERIFY(box);
        QCOMPARE(box->text(), text("removetargetclicked"));
        clickButton(box, "removebutton");
        QTRY_VERIFY(cover()->isFullyHidden());
        QCOMPARE(app_->destinations().count(), 1);
        QCOMPARE(app_->currentTargetPath(), a);
        QCOMPARE(QSettings().value("recentBackupsPopupIndex").toInt(), 0);
        QVERIFY(fs::exists(FVConfigurationFile::currentPath(b)));  // the destination's files stay
    }

    void openingReportsUnusableDestinationsAndRepairsConfigurations() {
        std::string gone = makeDir("gone"), legacy = makeDir("legacy"), broken = makeDir("broken"), admin = makeDir("admin");
        launch();
        openDestination(gone);
        fs::remove_all(gone);
        launch();
        QTRY_COMPARE(cover()->message(), text("destinationunavailable"));
        QVERIFY(!app_->window()->startButton()->isEnabled());

        // Chosen in the popup, an unavailable destination is asked about over an empty window,
        // not over the list, free space and buttons of the destination before it.
        std::string usable = makeDir("usable");
        openDestination(usable);
        app_->addSourcePaths({QString::fromStdString(makeDir("Documents"))}, 0);
        // A source that holds the destination is added, with a warning.
        app_->addSourcePaths({QString::fromStdString(fs::path(usable).parent_path().string())}, 0);
        QMessageBox* warning = nullptr;
        QTRY_VERIFY((warning = openAlert(app_->window())) != nullptr);
        QCOMPARE(warning->text(), text("sourcecontainsdestination"));
        QCOMPARE(app_->backupSetController().count(), size_t(2));
        warning->accept();
        app_->performTargetMenuSelection(0);
        QMessageBox* question = nullptr;
        QTRY_VERIFY((question = openAlert(app_->window())) != nullptr);
        QCOMPARE(question->text(), text("removetarget"));
        QVERIFY(cover()->isFullyShown());
        QCOMPARE(app_->window()->sourceListView()->model()->rowCount(), 0);
        QVERIFY(app_->window()->progressInfo()->text().isEmpty());
        QVERIFY(!app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->window()->optionsButton()->isEnabled());
        clickButton(question, "keepbutton");
        QTRY_COMPARE(cover()->message(), text("destinationunavailable"));

        // The older file is renamed, read, and completed with the defaults.
        PlistDict old;
        old.set(FVOptionKey::maxThreads, int64_t(5));
        auto item = FVSourceItem::make(makeDir("src"), FVSourceMode::Backup);
        FVConfigurationFile::writeSettingsForSourceConfiguration({item}, old, FVConfigurationFile::legacyPath(legacy));
        openDestination(legacy);
        QVERIFY(!fs::exists(FVConfigurationFile::legacyPath(legacy)));
        QCOMPARE(readSettingsOf(legacy).integerValue(FVOptionKey::maxThreads), 5);
        QCOMPARE(readSettingsOf(legacy).integerValue(FVOptionKey::purgeRemovedArchiveDays), 30);
        QCOMPARE(app_->backupSetController().count(), size_t(1));
        QMessageBox* upgrade = openAlert(app_->window());
        QVERIFY(upgrade);
        QCOMPARE(upgrade->text(), text("Ferrovane3UpgradeAlertMessage"));
        upgrade->accept();

        // A file that is not a property list is replaced by the defaults.
        ferrovane::test::writeFile(FVConfigurationFile::currentPath(broken), "not a property list");
        openDestination(broken);
        QCOMPARE(readSettingsOf(broken).integerValue(FVOptionKey::syncMode), 1);

        // A destination set up by root stays closed to other users.
        PlistDict rootOnly;
        rootOnly.set(FVOptionKey::isSuperuserBackup, true);
        FVConfigurationFile::writeSettingsForSourceConfiguration({}, rootOnly, FVConfigurationFile::currentPath(admin));
        app_->addAndOpenNewDestination(QString::fromStdString(admin));
        QTRY_COMPARE(cover()->message(), text("destinationrequiressuperuser"));
        QVERIFY(!app_->window()->startButton()->isEnabled());
    }

    void startChecksRunInOrderAndEachRefusesWithItsAlert() {
        std::string destination = makeDir("dest");
        launch(false);
        openDestination(destination);
        BackupSetController& list = app_->backupSetController();

        QCOMPARE(clickStartExpectingAlert()->text(), text("nosources"));
        openAlert(app_->window())->accept();

        // A disabled or excluding item is not something to back up.
        list.addBackupPath(makeDir("off"), FVSourceMode::Disabled, 0);
        QCOMPARE(clickStartExpectingAlert()->text(), text("nosources"));
        openAlert(app_->window())->accept();

        // "/" without root is refused before the file system is looked at.
        list.addBackupPath("/", FVSourceMode::Backup, 0);
        list.addBackupPath(makeDir("x/Documents"), FVSourceMode::Backup, 0);
        QCOMPARE(clickStartExpectingAlert()->text(), text("cloningbutnotroot"));
        openAlert(app_->window())->accept();

        launch(true);
        QTRY_VERIFY(cover()->isFullyHidden());
        QCOMPARE(app_->backupSetController().count(), size_t(3));
        QCOMPARE(clickStartExpectingAlert()->text(), text("cloningwithothersources"));
        openAlert(app_->window())->accept();

        app_->backupSetController().removeAllItems();
        app_->backupSetController().addBackupPath(makeDir("x/Documents"), FVSourceMode::Backup, 0);
        app_->backupSetController().addBackupPath(makeDir("y/Documents"), FVSourceMode::Backup, 0);
        QCOMPARE(clickStartExpectingAlert()->text(), text("syncmodeNotUniqueItems"));
        openAlert(app_->window())->accept();
        app_->backupSetController().removeItemsAtIndexes({1});

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
        QTRY_COMPARE(cover()->message(), text("destinationunavailable"));
        QVERIFY(!app_->window()->startButton()->isEnabled());
        QVERIFY(!app_->isBackupRunning());
    }

    void aCloneNeedsADestinationThatKeepsOwners() {
        std::string destination = makeDir("tmpfs");
        if (std::system(("mount -t tmpfs -o size=1m none '" + destination + "' 2>/dev/null").c_str()) != 0)
            QSKIP("cannot mount a tmpfs here");
        launch(true);
        openDestination(destination);
        app_->backupSetController().addBackupPath("/", FVSourceMode::Backup, 0);
        QCOMPARE(clickStartExpectingAlert()->text(), text("cloningbutnothfs"));
        openAlert(app_->window())->accept();
        app_.reset();
        std::system(("umount '" + destination + "'").c_str());
    }

    void aRunCopiesTheSourcesAndWritesTheResultsBack() {
        std::string destination = makeDir("dest"), source = makeDir("Projects");
        for (int i = 0; i < 3; ++i) ferrovane::test::writeFile(source + "/file" + std::to_string(i), std::string(1000 * (i + 1), 'x'));
        launch();
        openDestination(destination);
        app_->addSourcePaths({QString::fromStdString(source)}, 0);
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        app_->window()->startButton()->click();
        QVERIFY(ended.wait(30000));

        QVERIFY(cover()->message().startsWith(text("viewbackupfinished").section('{', 0, 0)));
        QVERIFY(!openAlert(app_->window()));
        QCOMPARE(ferrovane::test::readFile(destination + "/Projects/file2"), std::string(3000, 'x'));
        auto sources = readSourcesOf(destination);
        QCOMPARE(sources.size(), size_t(1));
        QVERIFY(sources[0]->value(FVSourceKey::lastBackupDate).has_value());
        QCOMPARE(sources[0]->integerValue(FVSourceKey::updatedFilesCount), 4);  // the folder and its three files
        QVERIFY(!sources[0]->value(FVSourceKey::sizeInMB).has_value());
        QCOMPARE(app_->window()->startButton()->text(), text("syncbutton"));
        QVERIFY(app_->window()->startButton()->isEnabled());
        QVERIFY(app_->window()->targetPopup()->isEnabled());

        // The outcome at a glance, in the row and under the list.
        QCOMPARE(app_->runOutcome().state(), FVRunOutcome::State::Finished);
        QVERIFY(cell(0, FVSourceListModel::LastRunColumn).contains("finished, 4 of"));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("finished"));
        QVERIFY(!app_->window()->showErrorsButton()->isVisibleTo(app_->window()));

        // Every write removes the measured sizes; each is measured again, after the run and
        // after the options were closed alike.
        const QString calculating = text("sourcesizecalculating");
        QTRY_VERIFY(cell(0, FVSourceListModel::SizeColumn) != calculating);
        app_->window()->optionsButton()->click();
        app_->window()->findChild<FVOptionsPanel*>()->accept();
        QVERIFY(!sources[0]->value(FVSourceKey::sizeInMB).has_value());
        QTRY_VERIFY(cell(0, FVSourceListModel::SizeColumn) != calculating);
        QTRY_VERIFY(!app_->window()->summaryLine()->text().contains(text("sourceiteminfocalculating").section('{', 1).section('}', 1)));
        QVERIFY(app_->window()->summaryLine()->text().startsWith("1 item,"));
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
        launch();
        openDestination(destination);
        app_->addSourcePaths({QString::fromStdString(mail), QString::fromStdString(photos)}, 0);
        for (int row = 0; row < 2; ++row)
            app_->backupSetController().arrangedObjects()[size_t(row)]->setValue(FVSourceKey::lastBackupDate, PlistDate{1.7e9});
        emit app_->window()->sourceListView()->model()->layoutChanged();
        QVERIFY2(cell(1, FVSourceListModel::LastRunColumn).endsWith("finished with 1 error"), qPrintable(cell(1, 4)));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("finished with 2 errors"));
        QVERIFY(app_->window()->showErrorsButton()->isVisibleTo(app_->window()));

        app_->window()->showErrorsButton()->click();
        auto* panel = app_->window()->findChild<FVErrorPanel*>();
        QVERIFY(panel && panel->text().contains("Permission denied"));
        auto* confirm = panel->findChild<QPushButton*>("confirmEmptyButton");
        QVERIFY(confirm);
        confirm->click();
        QMessageBox* question = nullptr;
        QTRY_VERIFY((question = openAlert(app_->window())) != nullptr);
        QVERIFY(question->text().contains("Mail"));
        clickButton(question, "confirmemptyaction");
        auto stored = readSourcesOf(destination);
        QCOMPARE(stored[0]->sourcePath(), mail);
        QVERIFY(stored[0]->value("emptySourceConfirmed").value_or(PlistValue(false)).boolValue());
        QVERIFY(!stored[1]->value("emptySourceConfirmed").has_value());
        panel->accept();
    }

    void cancellingRightAfterTheStartEndsCleanlyWithoutWriting() {
        std::string destination = makeDir("dest"), source = makeDir("Many");
        for (int i = 0; i < 400; ++i) ferrovane::test::writeFile(source + "/f" + std::to_string(i), std::string(4096, 'y'));
        launch();
        openDestination(destination);
        app_->addSourcePaths({QString::fromStdString(source)}, 0);
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        // Cancel in the same turn of the event loop that started the session.
        connect(app_.get(), &AppController::runStarted, app_.get(), [this] { app_->window()->startButton()->click(); });
        app_->window()->startButton()->click();
        QVERIFY(ended.wait(30000));

        // The run has stopped already: an information, not a question.
        QMessageBox* box = openAlert(app_->window());
        QVERIFY(box);
        QCOMPARE(box->text(), text("cancelalert"));
        QCOMPARE(box->icon(), QMessageBox::Information);
        QCOMPARE(box->buttons().size(), 1);
        QCOMPARE(app_->runOutcome().state(), FVRunOutcome::State::Stopped);
        QVERIFY(cell(0, FVSourceListModel::LastRunColumn).endsWith("stopped"));
        QVERIFY(app_->window()->lastRunLine()->text().endsWith("stopped"));
        QVERIFY(!app_->isBackupRunning());
        QVERIFY(app_->window()->startButton()->isEnabled());
        QVERIFY(!readSourcesOf(destination)[0]->value(FVSourceKey::lastBackupDate).has_value());
        box->accept();
        QTRY_VERIFY(cover()->isFullyHidden());
    }

    void closingDuringARunAsksThenStopsAndCloses() {
        std::string destination = makeDir("dest"), source = makeDir("Many");
        for (int i = 0; i < 400; ++i) ferrovane::test::writeFile(source + "/f" + std::to_string(i), std::string(4096, 'z'));
        launch();
        openDestination(destination);
        app_->addSourcePaths({QString::fromStdString(source)}, 0);
        QSignalSpy ended(app_.get(), &AppController::runEnded);
        connect(app_.get(), &AppController::runStarted, app_.get(), [this] {
            QVERIFY(!app_->window()->close());  // asks first
            QMessageBox* box = openAlert(app_->window());
            QVERIFY(box);
            QCOMPARE(box->text(), text("quitwhilerunning"));
            clickButton(box, "stopandquitbutton");
        });
        app_->window()->startButton()->click();
        QVERIFY(ended.wait(30000));
        QTRY_VERIFY(!app_->window()->isVisible());
        auto read = FVConfigurationFile::read(FVConfigurationFile::currentPath(destination));
        QCOMPARE(read.status, FVConfigurationReadStatus::Ok);
        QVERIFY(!read.configuration.sources[0]->value(FVSourceKey::lastBackupDate).has_value());
    }

    void optionsSheetKeepsDefaultsAndSchedulesTheDestination() {
        std::string a = makeDir("A"), b = makeDir("B");
        launch();
        openDestination(a);
        openDestination(b);
        const PlistDict& options = *app_->optionsPanelController().allOptions();
        QCOMPARE(options.integerValue(FVOptionKey::maxThreads), 2);
        QVERIFY(!options.contains(FVOptionKey::automationEnabled));

        // Closing without changes adds nothing but the identity.
        app_->window()->optionsButton()->click();
        auto* panel = app_->window()->findChild<FVOptionsPanel*>();
        QVERIFY(panel);
        panel->accept();
        QVERIFY(!options.contains(FVOptionKey::automationEnabled));
        QVERIFY(!app_->optionsPanelController().uuid().empty());

        // A weekly schedule on Friday at 03:30.
        app_->window()->optionsButton()->click();
        panel = app_->window()->findChild<FVOptionsPanel*>();
        panel->findChild<QCheckBox*>("automationEnabled")->setChecked(true);
        auto* interval = panel->findChild<QComboBox*>("automationInterval");
        interval->setCurrentIndex(interval->findData(1));
        auto* weekday = panel->findChild<QComboBox*>("automationWeekday");
        weekday->setCurrentIndex(weekday->findData(5));
        panel->findChild<QTimeEdit*>("automationTime")->setTime(QTime(3, 30));
        panel->accept();

        std::string uuid = app_->optionsPanelController().uuid();
        std::string label = FVLaunchAgentManager::jobLabel(uuid);
        std::string timer = ferrovane::test::readFile(*home_ / ("jobs/" + label + ".timer"));
        QVERIFY2(timer.find("OnCalendar=Fri *-*-* 03:30:00") != std::string::npos, timer.c_str());
        QVERIFY(!runner_->calls.empty() && runner_->calls.back()[0] == "systemctl");
        PlistDict stored = readSettingsOf(b);
        QCOMPARE(stored.integerValue(FVOptionKey::automationWeekdaySelection), 5);
        QCOMPARE(stored.integerValue(FVOptionKey::automationTimeHours), 3);
        QCOMPARE(stored.stringValue(FVOptionKey::UUID).value_or(""), uuid);

        // Removing the destination removes its job.
        app_->removeTargetWidgetClicked();
        clickButton(openAlert(app_->window()), "removebutton");
        QTRY_VERIFY(cover()->isFullyHidden());
        QVERIFY(!fs::exists(*home_ / ("jobs/" + label + ".timer")));
    }

    void plusAddsSeveralFoldersOrFiles() {
        std::string destination = makeDir("dest"), a = makeDir("Pictures"), b = makeDir("Music");
        ferrovane::test::writeFile(*work_ / "notes.txt", "n");
        launch();
        openDestination(destination);
        app_->window()->addFoldersAction()->trigger();
        auto* folders = app_->window()->findChild<QFileDialog*>("addFoldersDialog");
        QVERIFY(folders);
        QCOMPARE(folders->fileMode(), QFileDialog::Directory);
        emit folders->filesSelected({QString::fromStdString(a), QString::fromStdString(b)});
        folders->reject();
        app_->window()->addFilesAction()->trigger();
        auto* files = app_->window()->findChild<QFileDialog*>("addFilesDialog");
        QCOMPARE(files->fileMode(), QFileDialog::ExistingFiles);
        files->selectFile(QString::fromStdString(*work_ / "notes.txt"));
        QMetaObject::invokeMethod(files, "accept");
        QCOMPARE(app_->backupSetController().backupSetPaths(),
                 (std::vector<std::string>{*work_ / "notes.txt", a, b}));
    }

    void aSecondStartHandsItsPathsToTheFirst() {
        const QString name = QString("ferrovane-test-%1").arg(QCoreApplication::applicationPid());
        FVSingleInstance first(name), second(name);
        QVERIFY(!first.handOverToRunningInstance({}));  // nobody there: this one listens
        std::string destination = makeDir("dest"), folder = makeDir("Dropped");
        launch();
        openDestination(destination);
        connect(&first, &FVSingleInstance::activationRequested, app_.get(), &AppController::activateFromAnotherStart);
        QVERIFY(second.handOverToRunningInstance({QString::fromStdString(folder)}));
        QTRY_COMPARE(app_->backupSetController().backupSetPaths(), std::vector<std::string>{folder});
    }

    void searchNeedsThreeBytesAndOffersEveryVersion() {
        std::string destination = makeDir("dest");
        fs::create_directories(destination + "/Docs");
        fs::create_directories(destination + "/__removed/2024-01-02 10.00.00 +0000/Docs");
        ferrovane::test::writeFile(destination + "/Docs/annual report 2021.pdf", "new");
        ferrovane::test::writeFile(destination + "/__removed/2024-01-02 10.00.00 +0000/Docs/annual report 2021.pdf", "old");
        ferrovane::test::writeFile(destination + "/Docs/report.pdf", "other");
        fs::last_write_time(destination + "/__removed/2024-01-02 10.00.00 +0000/Docs/annual report 2021.pdf",
                            fs::file_time_type::clock::now() - std::chrono::hours(48));
        launch();
        openDestination(destination);
        app_->window()->searchButton()->click();
        auto* sheet = app_->window()->findChild<FVDestinationSearchSheet*>();
        QVERIFY(sheet);
        auto* field = sheet->findChild<QLineEdit*>("searchField");

        field->setText("20");
        QVERIFY(!sheet->search().isSearching());
        QVERIFY(sheet->search().searchResults().empty());

        field->setText("Report 2021");
        QVERIFY(sheet->search().isSearching());
        QTRY_VERIFY(!sheet->search().isSearching());
        QCOMPARE(sheet->search().searchResults().size(), size_t(1));
        QCOMPARE(sheet->search().searchResults()[0].fullpaths.size(), size_t(2));
        QCOMPARE(sheet->selectedVersionPath(0).toStdString(), destination + "/Docs/annual report 2021.pdf");

        // Choosing the older version is what would be revealed.
        auto* results = sheet->findChild<QAbstractItemView*>("searchResults");
        QVERIFY(results);
        auto* versions = sheet->findChild<QComboBox*>("searchVersions");
        results->setCurrentIndex(results->model()->index(0, 0));
        QCOMPARE(versions->count(), 2);
        versions->setCurrentIndex(1);
        emit versions->activated(1);
        QCOMPARE(sheet->selectedVersionPath(0).toStdString(),
                 destination + "/__removed/2024-01-02 10.00.00 +0000/Docs/annual report 2021.pdf");
        sheet->reject();
    }
};

QTEST_MAIN(AppWindowTest)
#include "AppWindowTests.moc"
