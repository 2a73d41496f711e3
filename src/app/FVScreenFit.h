#pragma once
// Windows open at their preferred size where the screen has room, and smaller where it has not
// (a laptop at a scale of 2 has 683 by 384 points).

#include <QSize>

class QWidget;

namespace ferrovane::FVScreenFit {

// Resizes widget to preferred, bounded by nine tenths of its screen's free area.
void resize(QWidget* widget, QSize preferred);

}  // namespace ferrovane::FVScreenFit
