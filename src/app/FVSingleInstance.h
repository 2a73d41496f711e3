#pragma once
// One window per user: the first start listens on a local socket; a later start hands its
// paths to it and leaves, and the running window comes forward.

#include <QObject>
#include <QStringList>

class QLocalServer;

namespace ferrovane {

class FVSingleInstance : public QObject {
    Q_OBJECT
public:
    // name is the socket's name; by default one per user.
    explicit FVSingleInstance(QString name = defaultName(), QObject* parent = nullptr);

    // True when another instance took paths (possibly none) and this one should end; otherwise
    // this instance now listens. False as well when listening failed: a second window is better
    // than none.
    bool handOverToRunningInstance(const QStringList& paths);
    static QString defaultName();

signals:
    // A later start asked to come forward, with the paths it was given.
    void activationRequested(const QStringList& paths);

private:
    void readConnection();

    QString name_;
    QLocalServer* server_ = nullptr;
};

}  // namespace ferrovane
