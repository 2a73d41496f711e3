#pragma once
// Reads a run's manifest as a stream, entry by entry, in the order it was written, with memory
// that does not grow with the number of entries (only with the distinct sets of attributes).

#include "manifest/FVManifestEntry.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace ferrovane {

class FVManifestReader {
public:
    // Nothing, with the reason, when the file cannot be opened or does not begin as a manifest
    // of a known format.
    static std::unique_ptr<FVManifestReader> open(const std::string& path, std::string* error);
    ~FVManifestReader();
    FVManifestReader(const FVManifestReader&) = delete;
    FVManifestReader& operator=(const FVManifestReader&) = delete;

    const FVManifestHeader& header() const { return header_; }
    // The next entry; false at the end, or when the file is damaged or cut short (see damaged()).
    bool next(FVManifestEntry& entry);
    // Once next() returned false: the summary when the manifest was read whole.
    const std::optional<FVManifestSummary>& summary() const { return summary_; }
    bool damaged() const { return !error_.empty(); }
    const std::string& error() const { return error_; }

    // Only the summary, read from the end of the file without decompressing the entries; nothing,
    // with the reason, when the file is damaged or was never finished.
    static std::optional<FVManifestSummary> readSummary(const std::string& path, std::string* error);

private:
    FVManifestReader(FILE* file, std::string path);
    // Makes at least n decompressed bytes available; false at the end of the data.
    bool fill(size_t n);
    bool readRecord(uint8_t& tag, std::string& payload);
    void damage(const std::string& what);

    FILE* file_;
    std::string path_;
    void* stream_ = nullptr;
    std::string input_;
    size_t inputPosition_ = 0;
    std::string data_;
    size_t dataPosition_ = 0;
    bool inputEnded_ = false;
    size_t frameLeft_ = 0;  // what the decompressor still expects of the frame it is in
    FVManifestHeader header_;
    std::optional<FVManifestSummary> summary_;
    std::string previousPath_;
    std::string payload_;
    std::unordered_map<uint64_t, FVManifestAttributes> attributeSets_;
    std::string error_;
    bool ended_ = false;
};

}  // namespace ferrovane
