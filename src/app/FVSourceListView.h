#pragma once
// The source list's table: mode popups open in every row, rows dragged to reorder, files dropped
// from a file manager, Delete removes the selected rows.

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

signals:
    void removeRequested();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void openPopups();
};

}  // namespace ferrovane
