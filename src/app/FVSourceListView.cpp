#include "app/FVSourceListView.h"

#include "app/FVModePopupDelegate.h"
#include "app/FVQtStrings.h"
#include "app/FVSourceListModel.h"

#include <QContextMenuEvent>
#include <QMenu>

#include <QHeaderView>
#include <QItemSelectionModel>
#include <QKeyEvent>

#include <algorithm>

namespace ferrovane {

FVSourceListView::FVSourceListView(QWidget* parent) : QTableView(parent) {
    setObjectName("sourceList");
    setItemDelegateForColumn(FVSourceListModel::ModeColumn, new FVModePopupDelegate(this));
    setSelectionBehavior(SelectRows);
    setSelectionMode(ExtendedSelection);
    setEditTriggers(NoEditTriggers);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(DragDrop);
    setDragDropOverwriteMode(false);
    setDefaultDropAction(Qt::MoveAction);
    setShowGrid(false);
    setAlternatingRowColors(true);
    setWordWrap(false);
    setTextElideMode(Qt::ElideMiddle);
    setIconSize({24, 24});
    verticalHeader()->hide();
    verticalHeader()->setDefaultSectionSize(kRowHeight);
    horizontalHeader()->setHighlightSections(false);
}

void FVSourceListView::setModel(QAbstractItemModel* model) {
    QTableView::setModel(model);
    QHeaderView* header = horizontalHeader();
    header->setSectionResizeMode(FVSourceListModel::NameColumn, QHeaderView::Interactive);
    header->setSectionResizeMode(FVSourceListModel::PathColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(FVSourceListModel::ModeColumn, QHeaderView::Fixed);
    // Widths set once, so that a run's longer texts never squeeze the path.
    header->setSectionResizeMode(FVSourceListModel::SizeColumn, QHeaderView::Interactive);
    header->setSectionResizeMode(FVSourceListModel::LastRunColumn, QHeaderView::Interactive);
    setColumnWidth(FVSourceListModel::NameColumn, 140);
    setColumnWidth(FVSourceListModel::ModeColumn, 200);
    setColumnWidth(FVSourceListModel::SizeColumn, 110);  // room for "Calculating size…"
    setColumnWidth(FVSourceListModel::LastRunColumn, 310);
    connect(model, &QAbstractItemModel::modelReset, this, &FVSourceListView::openPopups);
    connect(model, &QAbstractItemModel::rowsInserted, this, &FVSourceListView::openPopups);
    openPopups();
}

void FVSourceListView::openPopups() {
    const int rows = model()->rowCount();
    for (int row = 0; row < rows; ++row) {
        // The last row is taller, leaving room below the final item.
        setRowHeight(row, row == rows - 1 ? kLastRowHeight : kRowHeight);
        QModelIndex index = model()->index(row, FVSourceListModel::ModeColumn);
        if (!isPersistentEditorOpen(index)) openPersistentEditor(index);
    }
}

QList<int> FVSourceListView::selectedRows() const {
    QList<int> rows;
    for (const QModelIndex& index : selectionModel()->selectedRows()) rows << index.row();
    std::sort(rows.begin(), rows.end());
    return rows;
}

void FVSourceListView::selectRows(int first, int count) {
    if (count <= 0) return;
    QItemSelection range(model()->index(first, 0), model()->index(first + count - 1, model()->columnCount() - 1));
    selectionModel()->select(range, QItemSelectionModel::ClearAndSelect);
}

void FVSourceListView::contextMenuEvent(QContextMenuEvent* event) {
    const int row = indexAt(event->pos()).row();
    if (row < 0) return;
    selectRows(row, 1);
    // Only what is backed up has a copy to restore.
    const bool backedUp = model()->index(row, FVSourceListModel::ModeColumn).data(Qt::EditRole).toLongLong() ==
                          int64_t(FVSourceMode::Backup);
    QMenu menu(this);
    QAction* restore = menu.addAction(localized("menurestoresource"));
    restore->setEnabled(restoreEnabled_ && backedUp);
    if (menu.exec(event->globalPos()) == restore) emit restoreRequested(row);
}

void FVSourceListView::keyPressEvent(QKeyEvent* event) {
    if ((event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) && !selectedRows().isEmpty()) {
        emit removeRequested();
        return;
    }
    QTableView::keyPressEvent(event);
}

}  // namespace ferrovane
