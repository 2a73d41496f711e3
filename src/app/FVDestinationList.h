#pragma once
// The known destinations, in the order of the popup, kept between launches in QSettings with
// the index of the one selected last ("recentBackupsPopupIndex").

#include <QList>
#include <QString>
#include <QStringList>

class QSettings;

namespace ferrovane {

struct FVDestination {
    QString targetPath;
    QString uuid;  // the destination's backup UUID once known; names its scheduled job
};

class FVDestinationList {
public:
    void load(QSettings& settings);
    void save(QSettings& settings) const;

    const QList<FVDestination>& entries() const { return entries_; }
    int count() const { return int(entries_.size()); }
    bool isEmpty() const { return entries_.isEmpty(); }
    const FVDestination& at(int index) const { return entries_[index]; }
    int indexOf(const QString& targetPath) const;
    // The index of the entry for path, appended when new.
    int add(const QString& targetPath);
    void removeAt(int index);
    void setUUID(int index, const QString& uuid) { entries_[index].uuid = uuid; }
    QStringList uuids() const;

    int selectedIndex() const { return selected_; }
    void setSelectedIndex(int index) { selected_ = index; }

private:
    QList<FVDestination> entries_;
    int selected_ = 0;
};

}  // namespace ferrovane
