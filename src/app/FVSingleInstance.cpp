#include "app/FVSingleInstance.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <unistd.h>

namespace ferrovane {

namespace {
constexpr int kTimeoutMs = 2000;
}

FVSingleInstance::FVSingleInstance(QString name, QObject* parent) : QObject(parent), name_(std::move(name)) {}

QString FVSingleInstance::defaultName() { return QString("ferrovane-%1").arg(getuid()); }

bool FVSingleInstance::handOverToRunningInstance(const QStringList& paths) {
    QLocalSocket socket;
    socket.connectToServer(name_);
    if (socket.waitForConnected(kTimeoutMs)) {
        socket.write((paths.join('\n') + '\n').toUtf8());
        socket.disconnectFromServer();
        if (socket.state() == QLocalSocket::UnconnectedState || socket.waitForDisconnected(kTimeoutMs)) return true;
    }
    // Nobody answered: a socket left by an instance that crashed is in the way.
    QLocalServer::removeServer(name_);
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(name_)) {
        qWarning("Ferrovane: cannot listen on %s: %s", qPrintable(name_), qPrintable(server_->errorString()));
        return false;
    }
    connect(server_, &QLocalServer::newConnection, this, &FVSingleInstance::readConnection);
    return false;
}

void FVSingleInstance::readConnection() {
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        // The whole message arrives before the sender disconnects.
        connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
            QStringList paths = QString::fromUtf8(socket->readAll()).split('\n', Qt::SkipEmptyParts);
            emit activationRequested(paths);
        });
    }
}

}  // namespace ferrovane
