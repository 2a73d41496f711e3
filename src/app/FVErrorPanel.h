#pragma once
// The sheet that lists every error of a backup or a restore.

#include <QDialog>

#include <string>
#include <vector>

class QPlainTextEdit;

namespace ferrovane {

class FVErrorPanel : public QDialog {
    Q_OBJECT
public:
    // The title and the heading (a plural entry taking the count) name what reported the errors.
    FVErrorPanel(QWidget* window, const std::vector<std::string>& errors, const char* titleKey = "errorpaneltitle",
                 const char* messageKey = "errorpanelmessage");
    QString text() const;
    // Opens with its top at the screen's y = top (where the text above it ends), as low as the
    // screen lets it be.
    void openBelow(int top);
    // The source named by a "its source … is empty" refusal of the cleanup, or an empty string.
    static QString emptiedSourceIn(const std::string& error);

signals:
    // The user wants the mirror of this source emptied, as its folder was.
    void emptiedSourceConfirmationRequested(const QString& sourcePath);

private:
    QPlainTextEdit* text_;
};

}  // namespace ferrovane
