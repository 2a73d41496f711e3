#include "app/FVFileReveal.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace ferrovane::FVFileReveal {

namespace {
void openParentFolder(const QString& path, const std::function<void()>& failed) {
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath())) && failed) failed();
}
}  // namespace

void revealPath(const QString& path, std::function<void()> failed) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openParentFolder(path, failed);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                                       "org.freedesktop.FileManager1", "ShowItems");
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    // Asynchronous: activating a file manager may take a while and must not freeze the window.
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [path, failed](QDBusPendingCallWatcher* w) {
        if (w->isError()) openParentFolder(path, failed);
        w->deleteLater();
    });
}

}  // namespace ferrovane::FVFileReveal
