#pragma once
// Showing a file in the desktop's file manager.

#include <QString>

namespace ferrovane::FVFileReveal {

// Asks the file manager (org.freedesktop.FileManager1.ShowItems on the session bus) to show the
// item selected in its folder; without a file manager service, opens the parent folder instead.
void revealPath(const QString& path);

}  // namespace ferrovane::FVFileReveal
