#pragma once
// A time of day that takes typing at once: a click selects the hour or the minutes under it, so
// that the digits typed replace them (a plain time field puts a cursor there, and digits typed
// into a full hour are refused).

#include <QTimeEdit>

namespace ferrovane {

class FVTimeField : public QTimeEdit {
    Q_OBJECT
public:
    explicit FVTimeField(QWidget* parent = nullptr);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
};

}  // namespace ferrovane
