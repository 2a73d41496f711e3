#include "engine/record/FVRunRecorder.h"

#include "FVVersion.h"
#include "engine/record/FVRunRecords.h"
#include "engine/run/FVRunError.h"
#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileDescriptor.h"
#include "manifest/FVManifestReader.h"

#include <xxhash.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace ferrovane {

namespace {

int64_t nanoseconds(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

FVManifestEntryType typeOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return FVManifestEntryType::File;
    case S_IFDIR: return FVManifestEntryType::Folder;
    case S_IFLNK: return FVManifestEntryType::Link;
    default: return FVManifestEntryType::Other;
    }
}

}  // namespace

FVManifestAttributes FVRunRecorder::attributesOf(const FVExtendedAttributes& source) {
    FVManifestAttributes attributes;
    std::vector<char> names;
    const ssize_t listed = source.listNames(names);
    if (listed <= 0) return attributes;
    std::vector<char> value;
    for (const char* name = names.data(); name < names.data() + listed; name += std::strlen(name) + 1) {
        if (*name == '\0' || FVExtendedAttributes::isSkipped(name)) continue;
        ssize_t size = source.readValue(name, value);
        if (size < 0) continue;
        attributes.emplace_back(name, std::string(value.data(), static_cast<size_t>(size)));
    }
    std::sort(attributes.begin(), attributes.end());
    return attributes;
}

FVRunRecorder::FVRunRecorder(const FVRunSettings& settings, std::vector<std::string> sources, FVRunStatus& status)
    : settings_(settings), status_(status), layout_(settings.layout()) {
    FVManifestHeader header;
    header.stamp = settings.archiveFolderName;
    header.startedAtNs = nowNs();
    header.programVersion = FERROVANE_VERSION;
    header.sources = std::move(sources);
    header.folderPerSource = settings.syncMode();
    std::string error;
    writer_ = FVManifestWriter::create(FVRunRecords(settings.targetPath).folder(), header, &error);
    if (!writer_) giveUp(error);
}

FVRunRecorder::~FVRunRecorder() = default;

void FVRunRecorder::loadPreviousDigests() {
    if (!recording()) return;
    const std::optional<FVRunRecord> newest = FVRunRecords(settings_.targetPath).newestClosed();
    if (!newest) {
        status_.log("NOTE: The destination has no record of an earlier run: this run reads every file of the mirror "
                    "it does not copy once, to record the digest of its bytes.");
        return;
    }
    std::string error;
    std::unique_ptr<FVManifestReader> reader = FVManifestReader::open(newest->path, &error);
    if (reader) {
        previous_.reserve(newest->summary->files);
        FVManifestEntry entry;
        while (reader->next(entry)) previous_.add(entry);
        if (reader->damaged()) error = reader->error();
    }
    previous_.seal();
    if (!error.empty())
        status_.report(FVRunError::warning("reading the record", 0, newest->stamp,
                                           fmt::format("The record of run {} could not be read whole ({}); the digests "
                                                       "it lacks are read from the mirror.", newest->stamp, error))
                           .loggedOnly());
}

FVManifestEntry FVRunRecorder::entryOf(std::string relative, const std::string& sourcePath, const struct stat& st,
                                        const FVManifestAttributes* attributes) const {
    FVManifestEntry entry;
    entry.path = std::move(relative);
    entry.type = typeOf(st.st_mode);
    if (entry.type == FVManifestEntryType::File || entry.type == FVManifestEntryType::Link)
        entry.size = static_cast<uint64_t>(st.st_size);
    entry.modificationTimeNs = nanoseconds(st.st_mtim);
    entry.mode = st.st_mode & 07777;
    entry.owner = st.st_uid;
    entry.group = st.st_gid;
    entry.attributes = attributes ? *attributes : attributesOf(FVExtendedAttributes(sourcePath));
    if (entry.type != FVManifestEntryType::Folder && st.st_nlink > 1) {
        const uint64_t identity[2] = {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
        entry.linkGroup = XXH3_64bits(identity, sizeof identity) | 1;
    }
    entry.sourceDevice = st.st_dev;
    entry.sourceInode = st.st_ino;
    entry.sourceChangeTimeNs = nanoseconds(st.st_ctim);
    return entry;
}

void FVRunRecorder::add(const FVManifestEntry& entry) {
    if (!writer_->add(entry)) return giveUp(writer_->error());
    ++entries_;
    if (!carriedAttributes_.load(std::memory_order_relaxed) &&
        std::any_of(entry.attributes.begin(), entry.attributes.end(), [this](const auto& attribute) {
            return FVExtendedAttributes::isCarried(attribute.first, !settings_.options.disableACLClone);
        }))
        carriedAttributes_.store(true, std::memory_order_relaxed);
    if (entry.type == FVManifestEntryType::File) {
        ++files_;
        bytes_ += entry.size;
    }
    if (entry.linkGroup != 0 && entry.hash) noteGroupDigest(entry);
}

void FVRunRecorder::noteGroupDigest(const FVManifestEntry& entry) {
    std::lock_guard lock(mutex_);
    groupDigests_.emplace(entry.linkGroup, *entry.hash);
}

bool FVRunRecorder::recordCurrent(const std::string& relative, const std::string& sourcePath, const struct stat& st,
                                  const FVManifestAttributes* attributes) {
    if (!recording()) return true;
    std::optional<FVContentHash> hash;
    if (S_ISREG(st.st_mode)) {
        std::optional<FVDigestIndex::Carried> carried = previous_.find(relative, st);
        if (!carried) return false;
        hash = carried->hash;
        attributes = carried->attributes;
    }
    FVManifestEntry entry = entryOf(relative, sourcePath, st, attributes);
    entry.hash = hash;
    if (entry.type == FVManifestEntryType::Link) {
        entry.linkTarget = FVLongPath::readLink(sourcePath);
    }
    add(entry);
    return true;
}

void FVRunRecorder::recordCopy(const FVCopyRecord& record) {
    if (!recording()) return;
    std::optional<std::string> relative = layout_.relativePathOfDestinationPath(record.destinationPath);
    if (!relative) return;
    FVManifestEntry entry = entryOf(std::move(*relative), record.sourcePath, record.source, record.attributes);
    entry.linkTarget = record.linkTarget;
    entry.hash = record.hash;
    entry.failed = record.failed;
    add(entry);
    if (record.copied && !record.failed) ++copied_;
}

void FVRunRecorder::recordNotUpdated(const std::string& relative, const std::string& sourcePath,
                                       const struct stat& st) {
    if (!recording()) return;
    const FVManifestAttributes none;
    FVManifestEntry entry = entryOf(relative, sourcePath, st, &none);
    entry.failed = true;
    add(entry);
}

void FVRunRecorder::recordLaterName(const std::string& relative, const std::string& sourcePath,
                                    const struct stat& st) {
    if (!recording()) return;
    FVManifestEntry entry = entryOf(relative, sourcePath, st, nullptr);
    if (entry.type == FVManifestEntryType::Link) entry.linkTarget = FVLongPath::readLink(sourcePath);
    if (entry.linkGroup != 0) {
        std::lock_guard lock(mutex_);
        auto found = groupDigests_.find(entry.linkGroup);
        if (found != groupDigests_.end()) entry.hash = found->second;
    }
    add(entry);
}

void FVRunRecorder::finish(FVManifestOutcome outcome) {
    if (!recording()) {
        writer_.reset();  // takes its temporary file away
        return;
    }
    FVManifestSummary summary;
    summary.outcome = outcome;
    summary.entries = entries_;
    summary.files = files_;
    summary.bytes = bytes_;
    summary.copied = copied_;
    summary.archived = status_.archivedCount;
    summary.removed = status_.removedCount;
    summary.errors = status_.errorMessages().size();
    summary.finishedAtNs = nowNs();
    std::string error;
    if (!writer_->finish(summary, &error)) return giveUp(error);
    writer_.reset();
}

void FVRunRecorder::giveUp(const std::string& reason) {
    if (givenUp_.exchange(true)) return;
    const std::string message =
        fmt::format("This run is not recorded in {}: {}. Its backup is made, but it cannot be listed, restored or "
                    "verified as a point in time.", FVRunRecords(settings_.targetPath).folder(), reason);
    {
        std::lock_guard lock(mutex_);
        warning_ = message;
    }
    status_.report(FVRunError::warning("recording", 0, settings_.targetPath, message).loggedOnly());
}

std::string FVRunRecorder::warning() const {
    std::lock_guard lock(mutex_);
    return warning_;
}

}  // namespace ferrovane
