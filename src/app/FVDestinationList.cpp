#include "app/FVDestinationList.h"

#include <QSettings>

namespace ferrovane {

void FVDestinationList::load(QSettings& settings) {
    entries_.clear();
    int count = settings.beginReadArray("destinations");
    for (int i = 0; i < count; ++i) {
        settings.setArrayIndex(i);
        QString path = settings.value("targetPath").toString();
        if (!path.isEmpty()) entries_.append({path, settings.value("UUID").toString()});
    }
    settings.endArray();
    selected_ = settings.value("recentBackupsPopupIndex", 0).toInt();
    if (selected_ < 0 || selected_ >= count) selected_ = 0;
}

void FVDestinationList::save(QSettings& settings) const {
    settings.beginWriteArray("destinations", int(entries_.size()));
    for (int i = 0; i < entries_.size(); ++i) {
        settings.setArrayIndex(i);
        settings.setValue("targetPath", entries_[i].targetPath);
        if (entries_[i].uuid.isEmpty()) settings.remove("UUID");
        else settings.setValue("UUID", entries_[i].uuid);
    }
    settings.endArray();
    settings.setValue("recentBackupsPopupIndex", selected_);
}

int FVDestinationList::indexOf(const QString& targetPath) const {
    for (int i = 0; i < entries_.size(); ++i)
        if (entries_[i].targetPath == targetPath) return i;
    return -1;
}

int FVDestinationList::add(const QString& targetPath) {
    int index = indexOf(targetPath);
    if (index >= 0) return index;
    entries_.append({targetPath, {}});
    return int(entries_.size()) - 1;
}

void FVDestinationList::removeAt(int index) {
    if (index >= 0 && index < entries_.size()) entries_.removeAt(index);
}

QStringList FVDestinationList::uuids() const {
    QStringList ids;
    for (const FVDestination& entry : entries_)
        if (!entry.uuid.isEmpty()) ids << entry.uuid;
    return ids;
}

}  // namespace ferrovane
