#pragma once
// "config DEST exclude [--remove] PATTERN..." and "config DEST exclude-from FILE": the patterns a
// destination leaves out below every source, kept in its own configuration (an exclude file is
// read once, not linked: the destination carries what it needs).

#include "engine/config/FVPlist.h"

#include <optional>
#include <string>
#include <vector>

namespace ferrovane::FVExcludeCommand {

// The patterns to add or remove, each checked; or nothing with the message of every bad one.
std::optional<std::vector<std::string>> checkedPatterns(const std::vector<std::string>& patterns, std::string& problem);
// The patterns of an exclude file ("-": standard input); or nothing with why, naming the file
// and each bad line.
std::optional<std::vector<std::string>> readFile(const std::string& path, std::string& problem);

// Adds (or removes) the patterns in the options; returns false with the reason when the stored
// list cannot be used. message says what changed.
bool apply(PlistDict& options, const std::vector<std::string>& patterns, bool remove, const std::string& from,
           std::string& message);

// The stored patterns as they are, for show.
std::vector<std::string> storedPatterns(const PlistDict& options);

}  // namespace ferrovane::FVExcludeCommand
