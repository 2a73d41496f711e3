#pragma once
// The last results a run wrote into a source item (date, files, updated files, bytes copied), as
// config show and runs print them, in words and as JSON.

#include "engine/config/FVSourceItem.h"

#include <string>

namespace ferrovane::FVSourceResults {

// "last backup 2026-11-23 09:30:00: 120 files, 3 updated, 1.2 MB copied", or "not backed up yet".
std::string line(const FVSourceItem& item);
// "lastBackup": "<UTC time>" or null, "totalFiles": n, "updatedFiles": n, "bytesCopied": n
std::string jsonFields(const FVSourceItem& item);

}  // namespace ferrovane::FVSourceResults
