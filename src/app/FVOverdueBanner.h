#pragma once
// The band across the top of the main window that says backups of the open destination are
// overdue and why, with a button that starts one.

#include <QFrame>

class QLabel;
class QPushButton;

namespace ferrovane {

class FVOverdueBanner : public QFrame {
    Q_OBJECT
public:
    explicit FVOverdueBanner(QWidget* parent = nullptr);

    // Shows the banner with text; an empty text hides it. Back Up Now only where a run can start.
    void setText(const QString& text, bool offerBackUp = true);
    QString text() const;
    QPushButton* backUpNowButton() const { return backUpNow_; }

private:
    QLabel* label_;
    QPushButton* backUpNow_;
};

}  // namespace ferrovane
