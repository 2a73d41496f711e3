#include "app/FVAlert.h"

#include "app/FVQtStrings.h"

#include <QPushButton>

namespace ferrovane::FVAlert {

namespace {
QMessageBox* make(QWidget* window, const char* messageKey, const char* informativeKey, QMessageBox::Icon icon) {
    auto* box = new QMessageBox(window);
    box->setObjectName(QString("alert-") + messageKey);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    box->setIcon(icon);
    box->setText(localized(messageKey));
    box->setInformativeText(localized(informativeKey));
    return box;
}
}  // namespace

QMessageBox* show(QWidget* window, const char* messageKey, const char* informativeKey, QMessageBox::Icon icon,
                  std::function<void()> done) {
    QMessageBox* box = make(window, messageKey, informativeKey, icon);
    box->addButton(localized("okbutton"), QMessageBox::AcceptRole);
    if (done) QObject::connect(box, &QMessageBox::finished, box, [done](int) { done(); });
    box->open();
    return box;
}

QMessageBox* ask(QWidget* window, const char* messageKey, const char* informativeKey, const char* firstButtonKey,
                 const char* secondButtonKey, std::function<void(bool)> done) {
    QMessageBox* box = make(window, messageKey, informativeKey, QMessageBox::Information);
    QPushButton* first = box->addButton(localized(firstButtonKey), QMessageBox::RejectRole);
    QPushButton* second = box->addButton(localized(secondButtonKey), QMessageBox::AcceptRole);
    box->setDefaultButton(first);
    QObject::connect(box, &QMessageBox::finished, box, [box, second, done](int) { done(box->clickedButton() == second); });
    box->open();
    return box;
}

}  // namespace ferrovane::FVAlert
