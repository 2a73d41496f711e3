#include "app/FVModePopupDelegate.h"

#include "app/FVSourceListModel.h"
#include "app/FVSourceListView.h"

#include <QComboBox>
#include <QStandardItemModel>

#include <algorithm>

namespace ferrovane {

QWidget* FVModePopupDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem&, const QModelIndex& index) const {
    auto* popup = new QComboBox(parent);
    popup->setObjectName("modePopup");
    // Tab passes the list as one stop; Space on a row opens its popup.
    popup->setFocusPolicy(Qt::ClickFocus);
    for (int mode = 0; mode <= 3; ++mode) popup->addItem(FVSourceListModel::modeTitle(mode), mode);
    // A bare name is no path to back up or to leave out.
    if (!FVSourceListModel::takesEveryMode(index.data(Qt::ToolTipRole).toString()))
        for (FVSourceMode mode : {FVSourceMode::Backup, FVSourceMode::ExcludePath})
            static_cast<QStandardItemModel*>(popup->model())->item(int(mode))->setEnabled(false);
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
    const int64_t mode = static_cast<QComboBox*>(editor)->currentData().toLongLong();
    // A choice in a selected row is for every selected row.
    auto* view = qobject_cast<FVSourceListView*>(parent());
    auto* sources = qobject_cast<FVSourceListModel*>(model);
    QList<int> rows = view ? view->selectedRows() : QList<int>();
    if (!rows.contains(index.row())) rows = {index.row()};
    if (sources) sources->setMode(rows, mode);
    else model->setData(index, qlonglong(mode), Qt::EditRole);
}

}  // namespace ferrovane

namespace ferrovane {

void FVModePopupDelegate::updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option, const QModelIndex&) const {
    const QRect cell = option.rect.adjusted(4, 0, -4, 0);
    const int height = std::min(editor->sizeHint().height(), cell.height());
    editor->setGeometry(cell.x(), cell.y() + (cell.height() - height) / 2, cell.width(), height);
}

}  // namespace ferrovane
