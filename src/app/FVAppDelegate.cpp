#include "app/FVAppDelegate.h"

#include "FVVersion.h"
#include "app/AppController.h"
#include "app/FVSingleInstance.h"

#include <QApplication>
#include <QFileInfo>
#include <QIcon>

namespace ferrovane {

namespace {

// "--add" followed by paths: what the desktop entry passes for folders dropped on the launcher.
QStringList pathsToAdd(const QStringList& arguments) {
    QStringList paths;
    const int flag = arguments.indexOf("--add");
    if (flag < 0) return paths;
    for (const QString& argument : arguments.mid(flag + 1))
        if (QFileInfo::exists(argument)) paths << QFileInfo(argument).absoluteFilePath();
    return paths;
}

}  // namespace

int FVAppDelegate::main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("Ferrovane");
    QApplication::setOrganizationName("Ferrovane");
    QApplication::setApplicationVersion(FERROVANE_VERSION);
    QApplication::setDesktopFileName("ferrovane");
    QApplication::setWindowIcon(QIcon::fromTheme("ferrovane"));
    const QStringList paths = pathsToAdd(QApplication::arguments());
    FVSingleInstance instance;
    if (instance.handOverToRunningInstance(paths)) return 0;
    AppController controller(AppEnvironment::system());
    QObject::connect(&instance, &FVSingleInstance::activationRequested, &controller,
                     &AppController::activateFromAnotherStart);
    controller.initialiseApplication();
    if (!paths.isEmpty()) controller.activateFromAnotherStart(paths);
    return app.exec();
}

}  // namespace ferrovane
