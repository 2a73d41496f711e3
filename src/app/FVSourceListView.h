#pragma once
// The source list's table: mode popups open in every row, rows dragged to reorder, files dropped
// from a file manager, Delete removes the selected rows, a row's context menu restores it.

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
    void restoreRequested(int row);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    void openPopups();

    bool restoreEnabled_ = false;
};

}  // namespace ferrovane
