#include "app/FVSourceListView.h"

#include "app/FVModePopupDelegate.h"
#include "app/FVQtStrings.h"
#include "app/FVSourceListModel.h"

#include <QApplication>
#include <QComboBox>
#include <QContextMenuEvent>
#include <QDateTime>
#include <QStyle>
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
    setTabKeyNavigation(false);
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
    // Name and path share the room a wider window gives.
    header->setSectionResizeMode(FVSourceListModel::NameColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(FVSourceListModel::PathColumn, QHeaderView::Stretch);
    for (int column : {FVSourceListModel::ModeColumn, FVSourceListModel::SizeColumn, FVSourceListModel::LastRunColumn})
        header->setSectionResizeMode(column, QHeaderView::Fixed);
    fitColumns();
    connect(model, &QAbstractItemModel::modelReset, this, &FVSourceListView::openPopups);
    connect(model, &QAbstractItemModel::rowsInserted, this, &FVSourceListView::openPopups);
    connect(model, &QAbstractItemModel::dataChanged, this, &FVSourceListView::refreshPopups);
    openPopups();
}

// Mode, Size and Last backup are as wide as their usual texts in the font shown, and never so
// wide together that Name and Path get less than a third of the room; a run's longer texts are
// elided rather than squeezing the path.
void FVSourceListView::fitColumns() {
    if (!model()) return;
    const QFontMetrics metrics(font());
    const int padding = 3 * metrics.averageCharWidth();
    int mode = 0;
    for (int64_t choice = 0; choice <= 3; ++choice)
        mode = std::max(mode, metrics.horizontalAdvance(FVSourceListModel::modeTitle(choice)));
    // The popup's frame and arrow beside its text.
    mode += padding + style()->pixelMetric(QStyle::PM_ScrollBarExtent) + 2 * style()->pixelMetric(QStyle::PM_ComboBoxFrameWidth);
    const int size = metrics.horizontalAdvance(localized("sourcesizecalculating")) + padding;
    const QString stamp = FVRunOutcome::stamp(QDateTime(QDate(2026, 12, 28), QTime(23, 59)));
    const int lastRun = metrics.horizontalAdvance(localizedFormat("sourcelastrun", stamp.toStdString(), 88888, 88888)) + padding;
    // The popup is a control and keeps its width while it can; the texts give way first.
    const int room = viewport()->width() * 2 / 3;
    mode = std::min(mode, room / 2);
    const double share = std::min(1.0, double(room - mode) / (size + lastRun));
    setColumnWidth(FVSourceListModel::ModeColumn, mode);
    setColumnWidth(FVSourceListModel::SizeColumn, int(size * share));
    setColumnWidth(FVSourceListModel::LastRunColumn, int(lastRun * share));
}

void FVSourceListView::resizeEvent(QResizeEvent* event) {
    QTableView::resizeEvent(event);
    fitColumns();
}

void FVSourceListView::refreshPopups(const QModelIndex& topLeft, const QModelIndex& bottomRight) {
    if (topLeft == bottomRight || topLeft.column() > FVSourceListModel::ModeColumn ||
        bottomRight.column() < FVSourceListModel::ModeColumn)
        return;
    for (int row = topLeft.row(); row <= bottomRight.row(); ++row) {
        QModelIndex index = model()->index(row, FVSourceListModel::ModeColumn);
        if (QWidget* popup = indexWidget(index)) itemDelegateForColumn(FVSourceListModel::ModeColumn)->setEditorData(popup, index);
    }
}

QItemSelectionModel::SelectionFlags FVSourceListView::selectionCommand(const QModelIndex& index, const QEvent* event) const {
    // A row's mode popup taking the focus makes its row current; a selection holding that row stays,
    // so that the choice applies to all of it.
    QWidget* focus = QApplication::focusWidget();
    if (!event && index.isValid() && selectionModel()->isRowSelected(index.row(), {}) && focus &&
        focus == indexWidget(model()->index(index.row(), FVSourceListModel::ModeColumn)))
        return QItemSelectionModel::NoUpdate;
    return QTableView::selectionCommand(index, event);
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
    // The menu is about the selection when the row belongs to it, else about that row alone.
    if (!selectionModel()->isRowSelected(row, {})) selectRows(row, 1);
    const QList<int> rows = selectedRows();
    // Only what is backed up has a copy to restore.
    const bool backedUp = std::all_of(rows.begin(), rows.end(), [this](int selected) {
        return model()->index(selected, FVSourceListModel::ModeColumn).data(Qt::EditRole).toLongLong() ==
               int64_t(FVSourceMode::Backup);
    });
    QMenu menu(this);
    QAction* restore = menu.addAction(localized("menurestoresource"));
    restore->setEnabled(restoreEnabled_ && backedUp);
    if (menu.exec(event->globalPos()) == restore) emit restoreRequested(rows);
}

void FVSourceListView::keyPressEvent(QKeyEvent* event) {
    if ((event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) && !selectedRows().isEmpty()) {
        emit removeRequested();
        return;
    }
    const bool opensPopup = event->key() == Qt::Key_Space || event->key() == Qt::Key_F4 ||
                            (event->key() == Qt::Key_Down && event->modifiers() & Qt::AltModifier);
    if (opensPopup && currentIndex().isValid()) {
        if (auto* popup = qobject_cast<QComboBox*>(indexWidget(model()->index(currentIndex().row(), FVSourceListModel::ModeColumn)))) {
            popup->setFocus(Qt::OtherFocusReason);
            popup->showPopup();
            return;
        }
    }
    QTableView::keyPressEvent(event);
}

}  // namespace ferrovane
