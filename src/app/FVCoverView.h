#pragma once
// The view that slides over the source list with a message, a detail message, a small message
// and a progress value. It covers the list while no usable destination is open and during runs.

#include <QTimer>
#include <QWidget>

#include <functional>

class QLabel;
class QPropertyAnimation;

namespace ferrovane {

class FVThinProgressBar;

class FVCoverView : public QWidget {
    Q_OBJECT
public:
    // Lies over parent and follows its size.
    explicit FVCoverView(QWidget* parent);

    void setMessage(const QString& message);
    void setDetailMessage(const QString& detail);
    void setSmallMessage(const QString& small);
    void clearMessages();
    // A negative value hides the progress bar.
    void setProgress(double percent);
    QString message() const;
    QString detailMessage() const;
    // Where the messages end, in screen coordinates: a panel opened over the cover goes below.
    int textBottom() const;

    // Slides in (at once when already in) and then calls done, unless another slide or
    // openView() intervened.
    void scrollIn(std::function<void()> done = {});
    // Slides away, now or after the delay; scrollIn() cancels a pending delay.
    void openView();
    // While held, the cover stays in: what is under it cannot be used.
    void setHeld(bool held);
    void openViewDelayedBy(double seconds);

    bool isFullyShown() const;
    bool isFullyHidden() const;

signals:
    void coverStateChanged();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void slideTo(int y, std::function<void()> done);

    QLabel* message_;
    QLabel* detail_;
    QLabel* small_;
    FVThinProgressBar* progress_;
    QPropertyAnimation* animation_;
    QTimer openTimer_;
    bool wantShown_ = true;
    bool held_ = false;
    uint64_t slideGeneration_ = 0;
};

}  // namespace ferrovane
