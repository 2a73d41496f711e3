#pragma once
// Showing a file in the desktop's file manager.

#include <QString>

#include <functional>

namespace ferrovane::FVFileReveal {

// Asks the file manager (org.freedesktop.FileManager1.ShowItems on the session bus) to show the
// item selected in its folder; without a file manager service, opens the parent folder instead.
// failed runs when neither answered.
void revealPath(const QString& path, std::function<void()> failed);

}  // namespace ferrovane::FVFileReveal
