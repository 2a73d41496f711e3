#pragma once
// Writes one run's manifest as a stream: entries are compressed as they come, from any thread,
// into a temporary file in the destination's folder of run records; finish() adds the summary,
// flushes the file to disk and gives it its name. A writer that is dropped unfinished removes its
// temporary file, so that a half-written manifest never stands beside the whole ones.

#include "manifest/FVManifestEntry.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ferrovane {

class FVManifestWriter {
public:
    // The file name of a run's manifest in the folder of run records.
    static std::string fileName(const std::string& stamp);
    static constexpr const char* kExtension = ".fvmanifest";

    // Creates recordsFolder when it is missing (never through a link) and a temporary file in it.
    // Nothing, with the reason, when either fails.
    static std::unique_ptr<FVManifestWriter> create(const std::string& recordsFolder, const FVManifestHeader& header,
                                                    std::string* error);
    ~FVManifestWriter();
    FVManifestWriter(const FVManifestWriter&) = delete;
    FVManifestWriter& operator=(const FVManifestWriter&) = delete;

    // Safe from any thread. False once writing has failed (see error()); later entries are dropped.
    bool add(const FVManifestEntry& entry);
    // Writes the summary, flushes and renames the file to fileName(stamp); never replaces a
    // manifest of that name. False with the reason when any of it failed; the temporary file is
    // gone either way.
    bool finish(const FVManifestSummary& summary, std::string* error);
    std::string error() const;

private:
    FVManifestWriter(int folder, std::string temporaryName, std::string finalName);
    bool compress(const std::string& bytes, bool endFrame);
    bool writeOut(const char* data, size_t size);
    void fail(const std::string& what, int errnum);
    uint64_t attributeSetOf(const FVManifestAttributes& attributes);
    void discard();
    void closeFile();

    mutable std::mutex mutex_;
    int folder_ = -1;
    int file_ = -1;  // open while a chunk is written, and while finish() completes the file
    bool created_ = false;
    std::string temporaryName_;
    std::string finalName_;
    void* stream_ = nullptr;
    std::string pending_;
    std::string output_;
    std::string previousPath_;
    uint64_t written_ = 0;
    std::unordered_map<std::string, uint64_t> attributeSets_;
    uint64_t nextAttributeSet_ = 1;
    std::string error_;
    bool finished_ = false;
};

}  // namespace ferrovane
