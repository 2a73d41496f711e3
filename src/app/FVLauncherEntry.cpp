#include "app/FVLauncherEntry.h"

#include <QDBusMessage>
#include <QVariantMap>

#include <algorithm>

namespace ferrovane {

FVLauncherEntry::FVLauncherEntry(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {
    pendingTimer_.setSingleShot(true);
    connect(&pendingTimer_, &QTimer::timeout, this, &FVLauncherEntry::sendPending);
}

void FVLauncherEntry::setProgress(double fraction, qint64 count) {
    pendingFraction_ = std::clamp(fraction, 0.0, 1.0);
    pendingCount_ = count;
    if (pendingTimer_.isActive()) return;
    const qint64 elapsed = sinceLastSend_.isValid() ? sinceLastSend_.elapsed() : kMinimumIntervalMs;
    if (elapsed >= kMinimumIntervalMs) sendPending();
    else pendingTimer_.start(int(kMinimumIntervalMs - elapsed));
}

void FVLauncherEntry::showCount(qint64 count) {
    pendingTimer_.stop();
    send(0, false, count, true);
}

void FVLauncherEntry::clear() {
    pendingTimer_.stop();
    send(0, false, 0);
}

void FVLauncherEntry::sendPending() { send(pendingFraction_, true, pendingCount_); }

void FVLauncherEntry::send(double fraction, bool visible, qint64 count, bool urgent) {
    sinceLastSend_.start();
    shownCount_ = visible || urgent ? count : 0;
    if (!bus_.isConnected()) return;
    QDBusMessage message = QDBusMessage::createSignal("/org/ferrovane/LauncherEntry", "com.canonical.Unity.LauncherEntry", "Update");
    QVariantMap properties{{"progress", fraction},
                           {"progress-visible", visible},
                           {"count", count},
                           {"count-visible", (visible || urgent) && count > 0},
                           {"urgent", urgent}};
    message << QStringLiteral("application://ferrovane.desktop") << properties;
    bus_.send(message);
}

}  // namespace ferrovane
