#include "app/FVAppDelegate.h"

#include "FVVersion.h"
#include "app/FVMainWindow.h"

#include <QApplication>

namespace ferrovane {

int FVAppDelegate::main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("Ferrovane");
    QApplication::setOrganizationName("Ferrovane");
    QApplication::setApplicationVersion(FERROVANE_VERSION);
    FVMainWindow window;
    window.show();
    return app.exec();
}

}  // namespace ferrovane
