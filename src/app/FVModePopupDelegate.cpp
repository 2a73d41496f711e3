#include "app/FVModePopupDelegate.h"

#include "app/FVSourceListModel.h"

#include <QComboBox>

namespace ferrovane {

QWidget* FVModePopupDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem&, const QModelIndex&) const {
    auto* popup = new QComboBox(parent);
    popup->setObjectName("modePopup");
    for (int mode = 0; mode <= 3; ++mode) popup->addItem(FVSourceListModel::modeTitle(mode), mode);
    connect(popup, &QComboBox::activated, this, [this, popup] {
        emit const_cast<FVModePopupDelegate*>(this)->commitData(popup);
    });
    return popup;
}

void FVModePopupDelegate::setEditorData(QWidget* editor, const QModelIndex& index) const {
    auto* popup = static_cast<QComboBox*>(editor);
    popup->setCurrentIndex(popup->findData(index.data(Qt::EditRole).toInt()));
}

void FVModePopupDelegate::setModelData(QWidget* editor, QAbstractItemModel* model, const QModelIndex& index) const {
    model->setData(index, static_cast<QComboBox*>(editor)->currentData(), Qt::EditRole);
}

}  // namespace ferrovane
