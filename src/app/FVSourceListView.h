#pragma once
// The source list's table: mode popups open in every row, rows dragged to reorder, files dropped
// from a file manager, Delete removes the selected rows, a row's context menu restores them. Tab
// leaves the table: arrows move within it, Space opens the current row's mode popup.

#include <QTableView>

namespace ferrovane {

class FVSourceListView : public QTableView {
    Q_OBJECT
public:
    static constexpr int kRowHeight = 46;
    static constexpr int kLastRowHeight = 52;

    explicit FVSourceListView(QWidget* parent = nullptr);
    void setModel(QAbstractItemModel* model) override;
    QList<int> selectedRows() const;
    void selectRows(int first, int count);
    // "Restore from Backup…" in a row's context menu, offered only while the window is idle.
    void setRestoreEnabled(bool enabled) { restoreEnabled_ = enabled; }

signals:
    void removeRequested();
    void restoreRequested(const QList<int>& rows);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    QItemSelectionModel::SelectionFlags selectionCommand(const QModelIndex& index, const QEvent* event) const override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void fitColumns();
    void openPopups();
    // Persistent editors hear only of single-cell changes: a change of many rows is shown here.
    void refreshPopups(const QModelIndex& topLeft, const QModelIndex& bottomRight);

    bool restoreEnabled_ = false;
};

}  // namespace ferrovane
