#pragma once
// The main window: the destination bar, the source list, and the cover view that lies over the
// list while no usable destination is open.

#include <QMainWindow>

class QLabel;
class QTableView;
class QStandardItemModel;

namespace ferrovane {

class FVCoverView;

class FVMainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit FVMainWindow(QWidget* parent = nullptr);

private:
    QTableView* sourceList_ = nullptr;
    QStandardItemModel* sourceModel_ = nullptr;
    FVCoverView* cover_ = nullptr;
};

}  // namespace ferrovane
