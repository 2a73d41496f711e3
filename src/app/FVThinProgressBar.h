#pragma once
// A flat progress bar a few pixels high: under the destination bar and on the cover view.

#include <QWidget>

namespace ferrovane {

class FVThinProgressBar : public QWidget {
    Q_OBJECT
public:
    explicit FVThinProgressBar(QWidget* parent = nullptr);
    // Percent, 0 to 100; 0 draws nothing but the track.
    void setProgress(double percent);
    double progress() const { return percent_; }
    QSize sizeHint() const override { return {100, 3}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double percent_ = 0;
};

}  // namespace ferrovane
