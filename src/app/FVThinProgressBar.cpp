#include "app/FVThinProgressBar.h"

#include <QPainter>

#include <algorithm>

namespace ferrovane {

FVThinProgressBar::FVThinProgressBar(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFixedHeight(3);
}

void FVThinProgressBar::setProgress(double percent) {
    percent = std::clamp(percent, 0.0, 100.0);
    if (percent == percent_) return;
    percent_ = percent;
    update();
}

void FVThinProgressBar::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const qreal radius = height() / 2.0;
    QColor track = palette().color(QPalette::Mid);
    track.setAlpha(70);
    painter.setBrush(track);
    painter.drawRoundedRect(rect(), radius, radius);
    if (percent_ <= 0) return;
    QRectF bar = rect();
    bar.setWidth(bar.width() * percent_ / 100.0);
    painter.setBrush(palette().color(QPalette::Highlight));
    painter.drawRoundedRect(bar, radius, radius);
}

}  // namespace ferrovane
