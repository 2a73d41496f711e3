#include "app/FVFocusRingStyle.h"

#include <QApplication>
#include <QPainter>
#include <QStyleFactory>
#include <QStyleOption>

namespace ferrovane {

void FVFocusRingStyle::install() {
    if (qobject_cast<FVFocusRingStyle*>(QApplication::style())) return;
    // A style of its own to wrap: the application deletes the one it replaces.
    QStyle* base = QStyleFactory::create(QApplication::style()->name());
    QApplication::setStyle(new FVFocusRingStyle(base));
}

void FVFocusRingStyle::drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                                   const QWidget* widget) const {
    QProxyStyle::drawControl(element, option, painter, widget);
    if (element == CE_PushButton || element == CE_CheckBox || element == CE_RadioButton) drawRing(option, painter);
}

void FVFocusRingStyle::drawComplexControl(ComplexControl control, const QStyleOptionComplex* option, QPainter* painter,
                                          const QWidget* widget) const {
    QProxyStyle::drawComplexControl(control, option, painter, widget);
    if (control == CC_ToolButton || control == CC_ComboBox) drawRing(option, painter);
}

void FVFocusRingStyle::drawRing(const QStyleOption* option, QPainter* painter) {
    if (!(option->state & State_HasFocus)) return;
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing, false);
    painter->setBrush(Qt::NoBrush);
    painter->setPen(QPen(option->palette.color(QPalette::Highlight), 2));
    painter->drawRect(QRectF(option->rect).adjusted(1, 1, -1, -1));
    painter->restore();
}

}  // namespace ferrovane
