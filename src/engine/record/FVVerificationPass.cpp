#include "engine/record/FVVerificationPass.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVPointInTime.h"
#include "engine/record/FVVersionCatalog.h"
#include "engine/run/FVNumber.h"
#include "fs/FVDirectoryWalker.h"
#include "fs/FVFileStatus.h"
#include "fs/FVTestHook.h"
#include "manifest/FVManifestReader.h"
#include "manifest/FVPathKey.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

FVManifestEntryType typeOf(mode_t mode) {
    if (S_ISREG(mode)) return FVManifestEntryType::File;
    if (S_ISDIR(mode)) return FVManifestEntryType::Folder;
    if (S_ISLNK(mode)) return FVManifestEntryType::Link;
    return FVManifestEntryType::Other;
}

// Every entry of a run's manifest, in its order; false with the reason when it is damaged.
bool forEachEntry(const FVRunRecord& run, const std::function<void(const FVManifestEntry&)>& visit,
                  std::string* problem) {
    auto reader = FVManifestReader::open(run.path, problem);
    if (!reader) return false;
    FVManifestEntry entry;
    while (reader->next(entry)) visit(entry);
    if (!reader->damaged()) return true;
    *problem = reader->error();
    return false;
}

std::string typeMismatch(FVManifestEntryType recorded, FVManifestEntryType found) {
    return fmt::format("recorded as {}, found {}", manifestEntryTypeName(recorded), manifestEntryTypeName(found));
}

constexpr std::chrono::nanoseconds kProgressInterval = std::chrono::milliseconds(100);

}  // namespace

FVVerificationPass::FVVerificationPass(const FVVerification::Options& options,
                                       const FVVerification::ProgressCallback& progress,
                                       const FVVerification::FindingCallback& finding,
                                       const std::atomic<bool>& cancelled, FVVerificationSummary& summary)
    : options_(options), progress_(progress), finding_(finding), cancelled_(cancelled), summary_(summary),
      readers_(options.readers,
               [this](const FVVerificationReaders::Job& job, const std::optional<FVContentHash>& digest, int error) {
                   checked(job, digest, error);
               },
               cancelled) {}

void FVVerificationPass::report(FVVerificationFinding::Kind kind, const std::string& path, std::string detail) {
    std::lock_guard lock(mutex_);
    using Kind = FVVerificationFinding::Kind;
    switch (kind) {
    case Kind::Damaged: ++summary_.damaged; break;
    case Kind::Missing: ++summary_.missing; break;
    case Kind::Unexpected: ++summary_.unexpected; break;
    case Kind::SourceDiffers: ++summary_.sourcesDiffering; break;
    case Kind::Unreadable: ++summary_.unreadable; break;
    case Kind::Gone: ++summary_.gone; break;
    case Kind::Unrecorded: break;
    }
    if (finding_) finding_(FVVerificationFinding{kind, path, std::move(detail)});
}

void FVVerificationPass::reportDamagedRecord(const FVRunRecord& run, const std::string& problem) {
    report(FVVerificationFinding::Kind::Unreadable, run.path, problem);
}

void FVVerificationPass::checked(const FVVerificationReaders::Job& job, const std::optional<FVContentHash>& digest,
                                 int error) {
    using Kind = FVVerificationFinding::Kind;
    // A source removed since the run is for the next run to notice.
    bool sourceGone = job.isSource && error == ENOENT;
    if (!digest && !sourceGone)
        report(Kind::Unreadable, job.reported, std::strerror(error));
    else if (digest && *digest != job.expected)
        report(job.isSource ? Kind::SourceDiffers : Kind::Damaged, job.reported,
               fmt::format("read {}, recorded {}", digest->hex(), job.expected.hex()));
    FVTestHook::reach("file-verified", job.reported);
    tick(false);
}

void FVVerificationPass::setTask(const char* task) {
    std::lock_guard lock(mutex_);
    task_ = task;
}

void FVVerificationPass::tick(bool force) {
    if (!progress_) return;
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch()).count();
    int64_t due = nextTickNs_.load(std::memory_order_relaxed);
    // One caller per interval wins; the others go on reading.
    if (!force && (now < due || !nextTickNs_.compare_exchange_strong(due, now + kProgressInterval.count())))
        return;
    std::lock_guard lock(mutex_);
    uint64_t bytes = readers_.bytesRead();
    uint64_t planned = std::max<uint64_t>(planned_.load(std::memory_order_relaxed), 1);
    percent_ = std::max(percent_, std::min(99.0f, 100.0f * static_cast<float>(bytes) / static_cast<float>(planned)));
    progress_({task_, percent_, readers_.filesRead(), bytes});
}

void FVVerificationPass::finish() {
    readers_.drain();
    summary_.files = readers_.filesRead();
    summary_.bytes = readers_.bytesRead();
    tick(true);
}

// The mirror against the newest complete run, with what the runs after it (stopped or failed)
// recorded on top: every item there must be recorded as it is, every recorded item there.
void FVVerificationPass::verifyMirror(const std::vector<FVRunRecord>& runs, size_t latest) {
    setTask("Verifying the mirror");
    std::string problem;
    std::optional<FVPointInTime> pointInTime = FVPointInTime::open(destination(), runs[latest], &problem);
    if (!pointInTime) {
        reportDamagedRecord(runs[latest], problem);
        return;
    }
    const FVMirrorLayout& layout = pointInTime->layout();
    indexRecordedMirror(runs, latest);
    if (!walkMirror(layout)) return;
    reportMissing(runs, latest, layout);
}

// Marked: what the complete run recorded. A stopped or failed run after it may have recorded an
// item it never got to make, so only the complete run's items can be missing.
constexpr uint32_t kRecordedComplete = 1;

void FVVerificationPass::indexRecordedMirror(const std::vector<FVRunRecord>& runs, size_t latest) {
    size_t expected = 0;
    for (size_t i = latest; i < runs.size(); ++i) expected += runs[i].summary ? runs[i].summary->entries : 0;
    index_.clear();
    index_.reserve(expected);
    uint64_t plannedBytes = 0;
    std::string problem;
    for (size_t i = latest; i < runs.size(); ++i) {
        if (runs[i].summary) plannedBytes += runs[i].summary->bytes;
        if (!forEachEntry(runs[i], [&](const FVManifestEntry& entry) {
                FVRecordIndex::Record& record = index_.record(entry);
                if (i == latest) record.mark = kRecordedComplete;
            }, &problem))
            reportDamagedRecord(runs[i], problem);
    }
    plan(plannedBytes * (options_.sources ? 2 : 1));
    // The destination's root is no entry of the walk.
    for (const char* root : {"", "/"})
        if (FVRecordIndex::Record* record = index_.find(FVPathKey::of(root))) record->seen = true;
}

bool FVVerificationPass::walkMirror(const FVMirrorLayout& layout) {
    std::vector<std::string> mirrorRoots;
    for (const std::string& source : layout.sources()) mirrorRoots.push_back(layout.mirrorRelativePath(source));
    // A mirror's own folder, and the folders that lead to it, need no record of their own.
    auto holdsMirrorRoot = [&](std::string_view folder) {
        return std::any_of(mirrorRoots.begin(), mirrorRoots.end(), [&](const std::string& root) {
            return isManifestPathAtOrBelow(root, folder);
        });
    };

    FVDirectoryWalker walker(destination());
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (cancelled()) return false;
        tick(false);
        if (entry->level == 0) {
            if (entry->error) report(FVVerificationFinding::Kind::Unreadable, entry->path, std::strerror(entry->error));
            continue;
        }
        std::string_view name = entry->name();
        // What the destination keeps for itself, and what the file system keeps in a volume's root.
        if ((entry->level == 1 && (FVMirrorLayout::isReservedName(name) || name == "lost+found")) ||
            FVMirrorLayout::isTemporaryName(name)) {
            walker.skipChildren();
            continue;
        }
        if (entry->error) {
            report(FVVerificationFinding::Kind::Unreadable, entry->path, std::strerror(entry->error));
            continue;
        }
        const std::string relative(entry->relativePath());
        FVManifestEntryType type = typeOf(entry->st.st_mode);
        FVRecordIndex::Record* record = index_.find(FVPathKey::of(relative));
        if (!record) {
            if (type == FVManifestEntryType::Folder && holdsMirrorRoot(relative)) continue;
            report(FVVerificationFinding::Kind::Unexpected, entry->path);
            walker.skipChildren();
            continue;
        }
        record->seen = true;
        if (record->type != type) {
            report(FVVerificationFinding::Kind::Damaged, entry->path, typeMismatch(record->type, type));
            walker.skipChildren();
            continue;
        }
        // A folder the run could not read: what it holds now was never recorded.
        if (type == FVManifestEntryType::Folder && record->failed) walker.skipChildren();
        if (!record->hasDigest) continue;
        read({entry->path, entry->path, record->digest, false});
        if (!options_.sources) continue;
        if (std::optional<std::string> original = layout.originalPath(relative))
            read({*original, *original, record->digest, true});
    }
    return true;
}

void FVVerificationPass::reportMissing(const std::vector<FVRunRecord>& runs, size_t latest,
                                       const FVMirrorLayout& layout) {
    // What was recorded and not found; below a missing folder only the folder is named. An item
    // that a later (stopped or failed) run moved into its archives is not missing.
    const FVMirrorLayout archives = FVMirrorLayout::archivesOf(destination());
    auto movedByLaterRun = [&](const std::string& path) {
        struct stat st {};
        for (size_t i = latest + 1; i < runs.size(); ++i)
            for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed})
                if (FVFileStatus::lstat(archives.archivePath(kind, runs[i].stamp, path).c_str(), &st) == 0) return true;
        return false;
    };
    std::optional<std::string> missingFolder;
    std::string problem;
    forEachEntry(runs[latest], [&](const FVManifestEntry& entry) {
        if (cancelled()) return;
        FVRecordIndex::Record* record = index_.find(FVPathKey::of(entry.path));
        if (!record || record->seen || record->failed) return;
        record->seen = true;
        if (missingFolder && isManifestPathAtOrBelow(entry.path, *missingFolder)) return;
        if (movedByLaterRun(entry.path)) return;
        report(FVVerificationFinding::Kind::Missing, layout.destinationPath(entry.path));
        if (entry.type == FVManifestEntryType::Folder) missingFolder = entry.path;
    }, &problem);
}

// Each run's archive folders, oldest first, against what the runs before it recorded: a file
// that run S moved aside held, when S began, what the newest earlier record says of its path.
void FVVerificationPass::verifyArchives(const std::vector<FVRunRecord>& runs) {
    setTask("Verifying the archives");
    struct Point {
        std::time_t time;
        std::string stamp;
        const FVRunRecord* run;
    };
    std::vector<Point> points;
    for (const FVRunRecord& run : runs) points.push_back({run.time, run.stamp, &run});
    const FVMirrorLayout archives = FVMirrorLayout::archivesOf(destination());
    const FVVersionCatalog catalog(archives);
    for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed})
        for (const FVVersionCatalog::ArchiveStamp& stamp : catalog.stamps(kind))
            if (std::none_of(points.begin(), points.end(), [&](const Point& p) { return p.stamp == stamp.name; }))
                points.push_back({stamp.time, stamp.name, nullptr});
    std::sort(points.begin(), points.end(),
              [](const Point& a, const Point& b) { return a.time != b.time ? a.time < b.time : a.stamp < b.stamp; });

    // Every path any run recorded: the largest run and some room for names that came and went,
    // so that the index seldom has to grow (growing holds the old table and the new one at once).
    uint64_t largest = 0;
    for (const FVRunRecord& run : runs) largest = std::max<uint64_t>(largest, run.summary ? run.summary->entries : 0);
    index_.clear();
    index_.reserve(largest + largest / 8);
    bool recorded = false;
    std::string problem;
    for (const Point& point : points) {
        for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed}) {
            const std::string folder = archives.archiveFolder(kind, point.stamp);
            struct stat st {};
            if (FVFileStatus::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
            uint64_t unrecorded = 0;
            FVDirectoryWalker walker(folder);
            while (const FVDirectoryWalker::Entry* entry = walker.next()) {
                if (cancelled()) return;
                tick(false);
                if (entry->level == 0) continue;
                if (FVMirrorLayout::isTemporaryName(entry->name())) continue;
                if (entry->error) {
                    report(FVVerificationFinding::Kind::Unreadable, entry->path, std::strerror(entry->error));
                    continue;
                }
                FVManifestEntryType type = typeOf(entry->st.st_mode);
                if (!recorded) {
                    unrecorded += type == FVManifestEntryType::File;
                    continue;
                }
                FVRecordIndex::Record* record = index_.find(FVPathKey::of(entry->relativePath()));
                // Folders that only lead to what was archived need no record of their own.
                if (!record && type == FVManifestEntryType::Folder) continue;
                if (!record) {
                    report(FVVerificationFinding::Kind::Unexpected, entry->path);
                    continue;
                }
                if (record->type != type) {
                    report(FVVerificationFinding::Kind::Damaged, entry->path, typeMismatch(record->type, type));
                    walker.skipChildren();
                    continue;
                }
                if (!record->hasDigest) continue;
                plan(static_cast<uint64_t>(entry->st.st_size));
                read({entry->path, entry->path, record->digest, false});
            }
            if (unrecorded) {
                report(FVVerificationFinding::Kind::Unrecorded, folder,
                       FVNumber::counted(unrecorded, "file") + " archived before the first record");
                summary_.unrecorded += unrecorded;
            }
        }
        if (!point.run) continue;
        if (!forEachEntry(*point.run, [&](const FVManifestEntry& entry) { index_.record(entry); }, &problem))
            reportDamagedRecord(*point.run, problem);
        recorded = true;
    }
}

// Where each version of the chosen run is now: in the mirror while no later run recorded its
// path differently (the mirror's pass read those), else in the archive of the first run that did.
// The archived ones were read by the archives' pass; here only those no archive kept are named.
void FVVerificationPass::locateVersions(const std::vector<FVRunRecord>& runs, size_t chosen) {
    setTask("Locating the versions");
    std::string problem;
    index_.clear();
    index_.reserve(runs[chosen].summary ? runs[chosen].summary->entries : 0);
    if (!forEachEntry(runs[chosen], [&](const FVManifestEntry& entry) { index_.record(entry); }, &problem)) {
        reportDamagedRecord(runs[chosen], problem);
        return;
    }
    for (size_t later = chosen + 1; later < runs.size() && !cancelled(); ++later) {
        const auto number = static_cast<uint32_t>(later);
        index_.forEach([](FVRecordIndex::Record& record) { record.seen = false; });
        forEachEntry(runs[later], [&](const FVManifestEntry& entry) {
            FVRecordIndex::Record* record = index_.find(FVPathKey::of(entry.path));
            if (!record || record->mark != 0) return;
            record->seen = true;
            bool sameBytes = !record->hasDigest || entry.failed || !entry.hash || *entry.hash == record->digest;
            if (entry.type != record->type || !sameBytes) record->mark = number;
        }, &problem);
        // A complete run lists everything: what it does not list, it removed.
        if (runs[later].complete())
            index_.forEach([&](FVRecordIndex::Record& record) {
                if (record.mark == 0 && !record.seen) record.mark = number;
            });
    }
    const FVMirrorLayout archives = FVMirrorLayout::archivesOf(destination());
    forEachEntry(runs[chosen], [&](const FVManifestEntry& entry) {
        if (entry.type == FVManifestEntryType::Folder) return;
        const FVRecordIndex::Record* record = index_.find(FVPathKey::of(entry.path));
        if (!record || record->mark == 0) return;
        const std::string& stamp = runs[record->mark].stamp;
        struct stat st {};
        for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed})
            if (FVFileStatus::lstat(archives.archivePath(kind, stamp, entry.path).c_str(), &st) == 0) return;
        report(FVVerificationFinding::Kind::Gone, archives.destinationPath(entry.path),
               "the run " + stamp + " replaced or removed it, and no archive kept it");
    }, &problem);
}

}  // namespace ferrovane
