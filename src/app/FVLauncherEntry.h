#pragma once
// The progress of a backup or restore on the desktop's task bar or dock: the launcher-entry
// signal that KDE's task manager and GNOME docks read from the session bus. Without a session
// bus it does nothing.

#include <QDBusConnection>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

namespace ferrovane {

class FVLauncherEntry : public QObject {
    Q_OBJECT
public:
    explicit FVLauncherEntry(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);

    // fraction from 0 to 1; count is shown beside it (items done). Sent at most a few times a
    // second: the latest values go out when the interval has passed.
    void setProgress(double fraction, qint64 count);
    // A count without a bar that asks for attention (what a failed run left undone), at once.
    void showCount(qint64 count);
    // Takes the bar and count away at once.
    void clear();
    // The count the entry shows now; 0 when it shows none.
    qint64 shownCount() const { return shownCount_; }

    static constexpr int kMinimumIntervalMs = 250;

private:
    void send(double fraction, bool visible, qint64 count, bool urgent = false);
    void sendPending();

    QDBusConnection bus_;
    QElapsedTimer sinceLastSend_;
    QTimer pendingTimer_;
    double pendingFraction_ = 0;
    qint64 pendingCount_ = 0;
    qint64 shownCount_ = 0;
};

}  // namespace ferrovane
