#pragma once
// The shared string table, as Qt text.

#include "engine/run/FVStrings.h"

#include <QString>

namespace ferrovane {

inline QString localized(const char* key) { return QString::fromStdString(FVStrings::localized(key)); }

template <class... Args>
QString localizedFormat(const char* key, Args&&... args) {
    return QString::fromStdString(FVStrings::format(key, std::forward<Args>(args)...));
}

// Paths are bytes; Qt needs them decoded and back.
inline QString qPath(const std::string& path) { return QString::fromLocal8Bit(path.data(), qsizetype(path.size())); }
inline std::string stdPath(const QString& path) { return path.toLocal8Bit().toStdString(); }

}  // namespace ferrovane
