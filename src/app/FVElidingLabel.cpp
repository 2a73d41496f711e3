#include "app/FVElidingLabel.h"

#include <QHelpEvent>
#include <QPainter>
#include <QStyle>
#include <QToolTip>

namespace ferrovane {

FVElidingLabel::FVElidingLabel(QWidget* parent) : QLabel(parent) {
    setWordWrap(false);
    setTextFormat(Qt::PlainText);
}

// Room for a few words; the layout gives the label its whole text's width when the window has it.
QSize FVElidingLabel::minimumSizeHint() const {
    return {fontMetrics().averageCharWidth() * 16, QLabel::minimumSizeHint().height()};
}

bool FVElidingLabel::isShortened() const {
    return fontMetrics().horizontalAdvance(text()) > contentsRect().width();
}

void FVElidingLabel::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const QRect room = contentsRect();
    const QString shown = fontMetrics().elidedText(text(), Qt::ElideRight, room.width());
    style()->drawItemText(&painter, room, int(alignment()), palette(), isEnabled(), shown, foregroundRole());
}

bool FVElidingLabel::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip && toolTip().isEmpty()) {
        if (isShortened())
            QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), text(), this);
        else
            QToolTip::hideText();
        return true;
    }
    return QLabel::event(event);
}

}  // namespace ferrovane
