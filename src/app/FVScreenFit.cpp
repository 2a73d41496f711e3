#include "app/FVScreenFit.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

namespace ferrovane::FVScreenFit {

void resize(QWidget* widget, QSize preferred) {
    const QWidget* anchor = widget->parentWidget() ? widget->parentWidget() : widget;
    const QScreen* screen = anchor->screen() ? anchor->screen() : QGuiApplication::primaryScreen();
    const QSize room = screen->availableGeometry().size() * 9 / 10;
    widget->resize(preferred.boundedTo(room).expandedTo(widget->minimumSizeHint()));
}

}  // namespace ferrovane::FVScreenFit
