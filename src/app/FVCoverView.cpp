#include "app/FVCoverView.h"

#include <QLabel>
#include <QProgressBar>
#include <QVBoxLayout>

namespace ferrovane {

FVCoverView::FVCoverView(QWidget* parent)
    : QWidget(parent), message_(new QLabel), detail_(new QLabel), small_(new QLabel), progress_(new QProgressBar) {
    setAutoFillBackground(true);
    QPalette p = palette();
    p.setColor(QPalette::Window, p.color(QPalette::Base));
    setPalette(p);
    for (QLabel* label : {message_, detail_, small_}) {
        label->setAlignment(Qt::AlignCenter);
        label->setWordWrap(true);
        label->hide();
    }
    QFont big = message_->font();
    big.setPointSizeF(big.pointSizeF() * 1.4);
    message_->setFont(big);
    QFont little = small_->font();
    little.setPointSizeF(little.pointSizeF() * 0.85);
    small_->setFont(little);
    small_->setForegroundRole(QPalette::PlaceholderText);
    progress_->setRange(0, 1000);
    progress_->setTextVisible(false);
    progress_->setMaximumWidth(360);
    progress_->hide();

    auto* layout = new QVBoxLayout(this);
    layout->addStretch(2);
    layout->addWidget(message_);
    layout->addWidget(detail_);
    layout->addWidget(progress_, 0, Qt::AlignHCenter);
    layout->addWidget(small_);
    layout->addStretch(3);
}

static void showText(QLabel* label, const QString& text) {
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

void FVCoverView::setMessage(const QString& message) { showText(message_, message); }
void FVCoverView::setDetailMessage(const QString& detail) { showText(detail_, detail); }
void FVCoverView::setSmallMessage(const QString& small) { showText(small_, small); }

void FVCoverView::setProgress(double percent) {
    progress_->setVisible(percent >= 0);
    if (percent >= 0) progress_->setValue(static_cast<int>(percent * 10));
}

}  // namespace ferrovane
