#pragma once
// The sheet that lists every error of a run.

#include <QDialog>

#include <string>
#include <vector>

class QPlainTextEdit;

namespace ferrovane {

class FVErrorPanel : public QDialog {
    Q_OBJECT
public:
    FVErrorPanel(QWidget* window, const std::vector<std::string>& errors);
    QString text() const;

private:
    QPlainTextEdit* text_;
};

}  // namespace ferrovane
