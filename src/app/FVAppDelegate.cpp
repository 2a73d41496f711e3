#include "app/FVAppDelegate.h"

#include "FVVersion.h"
#include "app/AppController.h"

#include <QApplication>
#include <QIcon>

namespace ferrovane {

int FVAppDelegate::main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("Ferrovane");
    QApplication::setOrganizationName("Ferrovane");
    QApplication::setApplicationVersion(FERROVANE_VERSION);
    QApplication::setDesktopFileName("ferrovane");
    QApplication::setWindowIcon(QIcon::fromTheme("ferrovane"));
    AppController controller(AppEnvironment::system());
    controller.initialiseApplication();
    return app.exec();
}

}  // namespace ferrovane
