#pragma once
// Alerts as window-modal sheets: texts from the string table, shown without blocking.

#include <QMessageBox>

#include <functional>

namespace ferrovane::FVAlert {

// One "okbutton" button; the message is the text of messageKey, the informative text that of
// informativeKey. done (may be empty) runs when the alert is dismissed.
QMessageBox* show(QWidget* window, const char* messageKey, const char* informativeKey,
                  QMessageBox::Icon icon = QMessageBox::Warning, std::function<void()> done = {});

// A question with two buttons; done receives whether the second (the action) was chosen.
QMessageBox* ask(QWidget* window, const char* messageKey, const char* informativeKey, const char* firstButtonKey,
                 const char* secondButtonKey, std::function<void(bool second)> done);

}  // namespace ferrovane::FVAlert
