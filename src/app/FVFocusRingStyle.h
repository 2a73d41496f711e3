#pragma once
// The program's style with a focus ring that can be seen: the usual styles draw the keyboard
// focus of buttons, popups and check boxes as a faint outline or not at all, which leaves a
// keyboard user guessing where Tab went.

#include <QProxyStyle>

namespace ferrovane {

class FVFocusRingStyle : public QProxyStyle {
    Q_OBJECT
public:
    // Wraps the application's current style, once.
    static void install();

    void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget = nullptr) const override;
    void drawComplexControl(ComplexControl control, const QStyleOptionComplex* option, QPainter* painter,
                            const QWidget* widget = nullptr) const override;

private:
    using QProxyStyle::QProxyStyle;
    static void drawRing(const QStyleOption* option, QPainter* painter);
};

}  // namespace ferrovane
