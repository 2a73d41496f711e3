#include "app/FVRunProgress.h"

#include "app/FVQtStrings.h"
#include "engine/run/FVNumber.h"
#include "fs/FVText.h"

#include <QStringList>

#include <algorithm>

namespace ferrovane {

namespace {

// No rate or estimate in the first second: it would say more about the start than the run.
constexpr double kSettleSeconds = 1;

QString size(uint64_t bytes) { return QString::fromStdString(FVNumber::formattedDiskSizeString(static_cast<double>(bytes))); }

QString timeLeft(double seconds) {
    if (seconds < 60) return localizedFormat("timeleftseconds", seconds);
    if (seconds < 3600) return localizedFormat("timeleftminutes", seconds / 60);
    return localizedFormat("timelefthours", seconds / 3600);
}

}  // namespace

QString FVRunProgress::counts() const {
    // Hard links made after their first name's copy count as copies the analysis did not hand over.
    const uint64_t files = std::max(totals.toCopy, totals.copied);
    const uint64_t bytes = std::max(totals.bytesToCopy, totals.bytesCopied);
    return localizedFormat("viewbackupprogressnumdetail", totals.copied, files, size(totals.bytesCopied).toStdString(),
                           size(bytes).toStdString());
}

QString FVRunProgress::pace() const {
    QStringList parts;
    if (elapsed > kSettleSeconds && totals.bytesWritten > 0)
        parts << localizedFormat("viewbackupprogressrate", size(uint64_t(double(totals.bytesWritten) / elapsed)).toStdString());
    if (elapsed > kSettleSeconds && percent > 1 && percent < 100) parts << timeLeft(elapsed * (100 - percent) / percent);
    if (!currentFile.empty()) parts << qPath(FVText::lastPathComponent(currentFile));
    return parts.join(QStringLiteral(" · "));
}

}  // namespace ferrovane
