#pragma once
// A one-line label that shortens its text with "…" when it lacks room, so a long outcome
// (a cause that names a deep path) cannot widen the window past the screen. text() stays whole,
// and the tooltip shows it whole while it is shortened.

#include <QLabel>

namespace ferrovane {

class FVElidingLabel : public QLabel {
    Q_OBJECT
public:
    explicit FVElidingLabel(QWidget* parent = nullptr);
    QSize minimumSizeHint() const override;
    bool isShortened() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;
};

}  // namespace ferrovane
