#include "app/FVDestinationPopup.h"

#include "app/FVQtStrings.h"

#include <QStorageInfo>

namespace ferrovane {

void FVDestinationPopup::addDestination(const QIcon& icon, const QString& name, const QString& path) {
    addItem(icon, name);
    setItemData(count() - 1, path, PathRole);
    setItemData(count() - 1, describe(count() - 1), Qt::ToolTipRole);
}

QString FVDestinationPopup::describe(int index) const {
    const QString path = itemData(index, PathRole).toString();
    // statvfs only: nothing stays open on the destination.
    const QStorageInfo storage(path);
    if (!storage.isValid() || !storage.isReady()) return path + '\n' + localized("destinationnotconnected");
    const double free = double(storage.bytesAvailable());
    return path + '\n' + (free >= 1e9 ? localizedFormat("gbfree", free * 1e-9) : localizedFormat("mbfree", free * 1e-6));
}

void FVDestinationPopup::showPopup() {
    for (int index = 0; index < count(); ++index) setItemData(index, describe(index), Qt::ToolTipRole);
    QComboBox::showPopup();
}

}  // namespace ferrovane
