#include "app/FVFileDialog.h"

#include <QDir>

namespace ferrovane::FVFileDialog {

QFileDialog* make(QWidget* parent, const QString& title, const QString& objectName, QFileDialog::FileMode mode,
                  const QString& acceptLabel) {
    auto* panel = new QFileDialog(parent, title, QDir::homePath());
    panel->setObjectName(objectName);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setWindowModality(Qt::WindowModal);
    panel->setFileMode(mode);
    if (mode == QFileDialog::Directory)
        panel->setOptions(QFileDialog::ShowDirsOnly | QFileDialog::DontUseNativeDialog);
    panel->setLabelText(QFileDialog::Accept, acceptLabel);
    return panel;
}

}  // namespace ferrovane::FVFileDialog
