#pragma once
// The view that lies over the source list with a message, a detail message, a small message
// and a progress value.

#include <QWidget>

class QLabel;
class QProgressBar;

namespace ferrovane {

class FVCoverView : public QWidget {
    Q_OBJECT
public:
    explicit FVCoverView(QWidget* parent = nullptr);
    void setMessage(const QString& message);
    void setDetailMessage(const QString& detail);
    void setSmallMessage(const QString& small);
    // A negative value hides the progress bar.
    void setProgress(double percent);

private:
    QLabel* message_;
    QLabel* detail_;
    QLabel* small_;
    QProgressBar* progress_;
};

}  // namespace ferrovane
