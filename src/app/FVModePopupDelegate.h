#pragma once
// The mode column's popup: a combo box that stays open in every row and applies a choice at once,
// to every selected row when its own row is one of them.

#include <QStyledItemDelegate>

namespace ferrovane {

class FVModePopupDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    void setEditorData(QWidget* editor, const QModelIndex& index) const override;
    void setModelData(QWidget* editor, QAbstractItemModel* model, const QModelIndex& index) const override;
    // The popup at its own height, centred in the taller row, not stretched over it.
    void updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
};

}  // namespace ferrovane
