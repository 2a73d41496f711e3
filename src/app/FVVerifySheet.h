#pragma once
// The Verify… sheet: reads the open destination back against the record of its runs on a thread
// of its own, with progress, and lists what it finds (damaged, missing, unexpected items).

#include "engine/record/FVVerification.h"

#include <QDialog>

#include <memory>
#include <thread>

class QCheckBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QTreeWidget;

namespace ferrovane {

class FVVerifySheet : public QDialog {
    Q_OBJECT
public:
    FVVerifySheet(QWidget* window, const QString& destination);
    // Stops a verification under way and waits for its thread.
    ~FVVerifySheet() override;

    bool isVerifying() const { return verification_ != nullptr; }
    QTreeWidget* findings() const { return findings_; }
    QLabel* outcome() const { return outcome_; }

    void start();

signals:
    void verificationEnded(int status);

private:
    void startOrStop();
    void showProgress(const FVVerification::Progress& progress);
    void addFinding(const FVVerificationFinding& finding);
    void showSummary(const FVVerificationSummary& summary);
    void stop();

    QString destination_;
    std::unique_ptr<FVVerification> verification_;
    std::thread thread_;
    QCheckBox* sources_;
    QPushButton* startButton_;
    QProgressBar* progress_;
    QLabel* task_;
    QTreeWidget* findings_;
    QLabel* outcome_;
};

}  // namespace ferrovane
