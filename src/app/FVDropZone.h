#pragma once
// What the source list shows while it is empty: an invitation to drop files and folders, which it
// also accepts.

#include <QWidget>

namespace ferrovane {

class FVDropZone : public QWidget {
    Q_OBJECT
public:
    explicit FVDropZone(QWidget* parent = nullptr);

signals:
    void pathsDropped(const QStringList& paths);

protected:
    void paintEvent(QPaintEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    bool hovering_ = false;
};

}  // namespace ferrovane
