#include "app/FVDropZone.h"

#include "app/FVQtStrings.h"

#include <QDragEnterEvent>
#include <QMimeData>
#include <QPainter>
#include <QUrl>

namespace ferrovane {

namespace {
QStringList localPaths(const QMimeData* data) {
    QStringList paths;
    for (const QUrl& url : data->urls())
        if (url.isLocalFile()) paths << url.toLocalFile();
    return paths;
}
}  // namespace

FVDropZone::FVDropZone(QWidget* parent) : QWidget(parent) {
    setObjectName("dropZone");
    setAcceptDrops(true);
}

void FVDropZone::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), palette().color(QPalette::Base));
    QColor ink = palette().color(hovering_ ? QPalette::Highlight : QPalette::PlaceholderText);
    QPen pen(ink, 2, Qt::DashLine);
    painter.setPen(pen);
    painter.drawRoundedRect(QRectF(rect()).adjusted(16, 16, -16, -16), 10, 10);
    painter.drawText(rect(), Qt::AlignCenter | Qt::TextWordWrap, localized("dropzonetext"));
}

void FVDropZone::dragEnterEvent(QDragEnterEvent* event) {
    if (localPaths(event->mimeData()).isEmpty()) return;
    event->acceptProposedAction();
    hovering_ = true;
    update();
}

void FVDropZone::dragLeaveEvent(QDragLeaveEvent*) {
    hovering_ = false;
    update();
}

void FVDropZone::dropEvent(QDropEvent* event) {
    hovering_ = false;
    update();
    QStringList paths = localPaths(event->mimeData());
    if (paths.isEmpty()) return;
    event->acceptProposedAction();
    emit pathsDropped(paths);
}

}  // namespace ferrovane
