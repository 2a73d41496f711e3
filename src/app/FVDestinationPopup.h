#pragma once
// The destination popup: each destination by name, with its path and free space on hover, read
// when the popup opens so that a disk plugged in or filled meanwhile is told as it is now.

#include <QComboBox>

namespace ferrovane {

class FVDestinationPopup : public QComboBox {
    Q_OBJECT
public:
    using QComboBox::QComboBox;

    // Adds a destination: name shown, path kept for the hover text.
    void addDestination(const QIcon& icon, const QString& name, const QString& path);
    // "path\nfree space" of the entry at index, as of now.
    QString describe(int index) const;
    void showPopup() override;

private:
    static constexpr int PathRole = Qt::UserRole + 1;
};

}  // namespace ferrovane
