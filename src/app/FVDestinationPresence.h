#pragma once
// Whether the open destination is still the one that was opened: its folder at the same place on
// the same file system. Tells when it goes away (its disk unmounted or unplugged, noticed from the
// mount table) and, while it is away, when it is back (its folder with its configuration again).
// It keeps nothing open on the destination, so that the disk can be ejected at any time.

#include <QObject>
#include <QTimer>

#include <memory>
#include <string>
#include <sys/types.h>

namespace ferrovane {

class FVMountWatcher;

class FVDestinationPresence : public QObject {
    Q_OBJECT
public:
    explicit FVDestinationPresence(QObject* parent = nullptr);
    ~FVDestinationPresence() override;

    // The destination was opened just now: from here on it counts as present.
    void watch(const std::string& path);
    // The destination could not be opened, or went away: waits for it to come back.
    void awaitReturn(const std::string& path);
    // Another destination, or none.
    void stop();

    // Checks now whether a present destination is still there; one found missing is reported by
    // wentAway(). Its return is noticed on its own time and reported by cameBack().
    bool isPresent();
    bool isAway() const { return away_; }
    bool isWatching() const { return !path_.empty(); }

signals:
    void wentAway();
    void cameBack();

private:
    void check();

    std::string path_;
    // The folder that was opened, on its file system; 0 while it is away.
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool away_ = false;
    QTimer returnTimer_;
    std::unique_ptr<FVMountWatcher> mountWatcher_;
};

}  // namespace ferrovane
