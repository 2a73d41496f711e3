#include "app/FVMainWindow.h"

#include "app/FVCoverView.h"
#include "engine/FVStrings.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QStackedLayout>
#include <QStandardItemModel>
#include <QTableView>
#include <QVBoxLayout>

namespace ferrovane {

namespace {
QString text(const char* key) { return QString::fromStdString(FVStrings::localized(key)); }
}  // namespace

FVMainWindow::FVMainWindow(QWidget* parent) : QMainWindow(parent) {
    setWindowTitle("Ferrovane");
    resize(760, 520);

    auto* central = new QWidget;
    auto* column = new QVBoxLayout(central);

    auto* bar = new QHBoxLayout;
    auto* destinations = new QComboBox;
    destinations->setPlaceholderText(text("nodestination"));
    destinations->setMinimumWidth(280);
    auto* start = new QPushButton(text("syncbutton"));
    start->setEnabled(false);
    bar->addWidget(destinations, 1);
    bar->addStretch();
    bar->addWidget(start);
    column->addLayout(bar);

    sourceModel_ = new QStandardItemModel(0, 4, this);
    sourceModel_->setHorizontalHeaderLabels({"Name", "Path", "Mode", "Size"});
    sourceList_ = new QTableView;
    sourceList_->setModel(sourceModel_);
    sourceList_->horizontalHeader()->setStretchLastSection(true);
    sourceList_->verticalHeader()->hide();

    cover_ = new FVCoverView;
    cover_->setMessage(text("viewnobackupselected"));

    auto* stack = new QStackedLayout;
    stack->setStackingMode(QStackedLayout::StackAll);
    stack->addWidget(sourceList_);
    stack->addWidget(cover_);
    stack->setCurrentWidget(cover_);
    column->addLayout(stack, 1);

    setCentralWidget(central);
}

}  // namespace ferrovane
