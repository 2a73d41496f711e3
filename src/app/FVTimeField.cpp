#include "app/FVTimeField.h"

#include <QLineEdit>
#include <QMouseEvent>

namespace ferrovane {

FVTimeField::FVTimeField(QWidget* parent) : QTimeEdit(parent) {
    setDisplayFormat("HH:mm");
    lineEdit()->installEventFilter(this);
}

bool FVTimeField::eventFilter(QObject* watched, QEvent* event) {
    const bool released = event->type() == QEvent::MouseButtonRelease &&
                          static_cast<QMouseEvent*>(event)->button() == Qt::LeftButton;
    // A drag that selected text keeps it.
    if (watched == lineEdit() && released && !lineEdit()->hasSelectedText()) {
        const bool onHour = lineEdit()->cursorPosition() <= sectionText(HourSection).size();
        setSelectedSection(onHour ? HourSection : MinuteSection);
    }
    return QTimeEdit::eventFilter(watched, event);
}

}  // namespace ferrovane
