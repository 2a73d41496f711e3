#pragma once
// The window's file choosers: window-modal over their parent, deleted once closed, in home.

#include <QFileDialog>

namespace ferrovane::FVFileDialog {

// A chooser of the given mode; folder choosers show folders only and use Qt's own dialog, whose
// views take several folders at once. Connect to it, then call open().
QFileDialog* make(QWidget* parent, const QString& title, const QString& objectName, QFileDialog::FileMode mode,
                  const QString& acceptLabel);

}  // namespace ferrovane::FVFileDialog
