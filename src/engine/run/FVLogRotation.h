#pragma once
// Keeps a log that every run appends to from growing without end: at the start of a run, a log
// above the cap becomes <log>.1 (and .1 becomes .2, up to the last generation kept). Two runs
// that start at once rotate it once: the size is read and the names moved under a lock on the
// log's folder. A run still writing to the old file (O_APPEND) goes on writing to <log>.1, so no
// line is lost.

#include <cstdint>
#include <string>

namespace ferrovane::FVLogRotation {

constexpr uint64_t kCapBytes = 10u << 20;
constexpr int kGenerations = 3;

// Rotates the log at path when it holds more than capBytes; returns what failed, or nothing.
std::string rotateIfLarger(const std::string& path, uint64_t capBytes = kCapBytes, int generations = kGenerations);

}  // namespace ferrovane::FVLogRotation
