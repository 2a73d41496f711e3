#include "manifest/FVManifestWriter.h"

#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFileSystemFlush.h"
#include "fs/FVItemCreation.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVRemovals.h"
#include "fs/FVRenames.h"
#include "manifest/FVManifestCodec.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ferrovane {

namespace {

constexpr const char* kTemporaryPrefix = ".ferrovane-tmp-";
constexpr size_t kPendingLimit = 1 << 17;
constexpr size_t kOutputLimit = 1 << 20;
// Zstandard's skippable frames are passed over by every decoder; the last one holds where the
// summary's frame begins, so that a listing of runs reads a few bytes per manifest.
constexpr uint32_t kSkippableMagic = 0x184D2A5E;
constexpr int kCompressionLevel = 3;
// Sets of attributes are stored once each; past this many distinct ones, sets are written again
// instead of remembered, so that memory stays bounded.
constexpr size_t kRememberedAttributeSets = 65536;

std::string temporaryName() {
    unsigned char random[8];
    if (getrandom(random, sizeof random, 0) != ssize_t(sizeof random)) {
        uint64_t fallback = uint64_t(getpid()) * 0x9E3779B97F4A7C15ull ^ uint64_t(time(nullptr));
        std::memcpy(random, &fallback, sizeof random);
    }
    char hex[17];
    for (int i = 0; i < 8; ++i) std::snprintf(hex + 2 * i, 3, "%02x", random[i]);
    return std::string(kTemporaryPrefix) + hex;
}

bool isTemporaryName(const char* name) {
    size_t prefix = std::strlen(kTemporaryPrefix);
    if (std::strncmp(name, kTemporaryPrefix, prefix) != 0 || std::strlen(name) != prefix + 16) return false;
    for (const char* p = name + prefix; *p; ++p)
        if (!((*p >= '0' && *p <= '9') || (*p >= 'a' && *p <= 'f'))) return false;
    return true;
}

// Manifests of runs that were killed while they wrote: the caller holds the destination's lock,
// so no living writer owns one.
void removeLeftovers(int folder) {
    int fd = FVOpenFiles::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    DIR* dir = FVDirectoryEntries::fdopendir(fd);
    if (!dir) {
        FVOpenFiles::close(fd);
        return;
    }
    while (dirent* e = FVDirectoryEntries::readdir(dir))
        if (isTemporaryName(e->d_name)) FVRemovals::unlinkat(folder, e->d_name, 0);
    FVDirectoryEntries::closedir(dir);
}

}  // namespace

std::string FVManifestWriter::fileName(const std::string& stamp) { return stamp + kExtension; }

std::unique_ptr<FVManifestWriter> FVManifestWriter::create(const std::string& recordsFolder,
                                                           const FVManifestHeader& header, std::string* error) {
    if (FVItemCreation::mkdir(recordsFolder.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create " + recordsFolder + ": " + std::strerror(errno);
        return nullptr;
    }
    int folder = FVOpenFiles::open(recordsFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) {
        *error = "cannot open " + recordsFolder + ": " + std::strerror(errno);
        return nullptr;
    }
    removeLeftovers(folder);
    std::unique_ptr<FVManifestWriter> writer(
        new FVManifestWriter(folder, temporaryName(), fileName(header.stamp)));
    // Open only while a chunk is written: a run holds no file of the destination open for
    // writing between its copies, so the destination can still be made read-only under it.
    int file = FVOpenFiles::openat(folder, writer->temporaryName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      0644);
    if (file < 0) {
        *error = "cannot create a run record in " + recordsFolder + ": " + std::strerror(errno);
        return nullptr;
    }
    FVOpenFiles::close(file);
    writer->created_ = true;
    writer->stream_ = ZSTD_createCCtx();
    if (!writer->stream_) {
        *error = "out of memory for the run record";
        return nullptr;
    }
    ZSTD_CCtx_setParameter(static_cast<ZSTD_CCtx*>(writer->stream_), ZSTD_c_compressionLevel, kCompressionLevel);
    ZSTD_CCtx_setParameter(static_cast<ZSTD_CCtx*>(writer->stream_), ZSTD_c_checksumFlag, 1);

    std::string start(FVManifestCodec::kMagic);
    FVManifestCodec::putVarint(start, FVManifestCodec::kFormatVersion);
    FVManifestCodec::putRecord(start, FVManifestCodec::kHeader, FVManifestCodec::encodeHeader(header));
    writer->pending_ = std::move(start);
    return writer;
}

FVManifestWriter::FVManifestWriter(int folder, std::string temporaryName, std::string finalName)
    : folder_(folder), temporaryName_(std::move(temporaryName)), finalName_(std::move(finalName)) {}

FVManifestWriter::~FVManifestWriter() {
    if (!finished_) discard();
    if (stream_) ZSTD_freeCCtx(static_cast<ZSTD_CCtx*>(stream_));
    if (folder_ >= 0) FVOpenFiles::close(folder_);
}

void FVManifestWriter::discard() {
    closeFile();
    if (created_) {
        created_ = false;
        FVRemovals::unlinkat(folder_, temporaryName_.c_str(), 0);
    }
}

void FVManifestWriter::closeFile() {
    if (file_ < 0) return;
    FVOpenFiles::close(file_);
    file_ = -1;
}

void FVManifestWriter::fail(const std::string& what, int errnum) {
    if (error_.empty()) error_ = what + ": " + std::strerror(errnum);
}

std::string FVManifestWriter::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

bool FVManifestWriter::writeOut(const char* data, size_t size) {
    if (file_ < 0) file_ = FVOpenFiles::openat(folder_, temporaryName_.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
    if (file_ < 0) {
        fail("cannot open the run record", errno);
        return false;
    }
    while (size) {
        ssize_t n = FVFileData::write(file_, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write the run record", errno);
            return false;
        }
        data += n;
        size -= size_t(n);
        written_ += uint64_t(n);
    }
    return true;
}

bool FVManifestWriter::compress(const std::string& bytes, bool endFrame) {
    auto* cctx = static_cast<ZSTD_CCtx*>(stream_);
    ZSTD_inBuffer in{bytes.data(), bytes.size(), 0};
    char chunk[1 << 16];
    for (;;) {
        ZSTD_outBuffer out{chunk, sizeof chunk, 0};
        size_t left = ZSTD_compressStream2(cctx, &out, &in, endFrame ? ZSTD_e_end : ZSTD_e_continue);
        if (ZSTD_isError(left)) {
            if (error_.empty()) error_ = std::string("cannot compress the run record: ") + ZSTD_getErrorName(left);
            return false;
        }
        output_.append(chunk, out.pos);
        if (output_.size() >= kOutputLimit) {
            const bool written = writeOut(output_.data(), output_.size());
            closeFile();
            if (!written) return false;
            output_.clear();
        }
        bool done = endFrame ? left == 0 : in.pos == in.size;
        if (done) return true;
    }
}

uint64_t FVManifestWriter::attributeSetOf(const FVManifestAttributes& attributes) {
    std::string key = FVManifestCodec::encodeAttributeSet(1, attributes);
    if (auto it = attributeSets_.find(key); it != attributeSets_.end()) return it->second;
    uint64_t id = nextAttributeSet_++;
    FVManifestCodec::putRecord(pending_, FVManifestCodec::kAttributeSet,
                               FVManifestCodec::encodeAttributeSet(id, attributes));
    if (attributeSets_.size() < kRememberedAttributeSets) attributeSets_.emplace(std::move(key), id);
    return id;
}

bool FVManifestWriter::add(const FVManifestEntry& entry) {
    std::lock_guard lock(mutex_);
    if (!error_.empty() || finished_) return false;
    uint64_t set = entry.attributes.empty() ? 0 : attributeSetOf(entry.attributes);
    FVManifestCodec::putRecord(pending_, FVManifestCodec::kEntry,
                               FVManifestCodec::encodeEntry(entry, previousPath_, set));
    previousPath_ = entry.path;
    if (pending_.size() >= kPendingLimit) {
        if (!compress(pending_, false)) return false;
        pending_.clear();
    }
    return true;
}

bool FVManifestWriter::finish(const FVManifestSummary& summary, std::string* error) {
    std::lock_guard lock(mutex_);
    auto failed = [&] {
        *error = error_;
        discard();
        finished_ = true;
        return false;
    };
    if (finished_) {
        *error = "the run record was already closed";
        return false;
    }
    if (!error_.empty()) return failed();
    // The entries end one frame; the summary is a frame of its own that the trailer points at.
    if (!compress(pending_, true)) return failed();
    pending_.clear();
    if (!writeOut(output_.data(), output_.size())) return failed();
    output_.clear();
    uint64_t summaryOffset = written_;
    std::string last;
    FVManifestCodec::putRecord(last, FVManifestCodec::kSummary, FVManifestCodec::encodeSummary(summary));
    if (!compress(last, true)) return failed();
    std::string trailer;
    for (uint32_t v : {kSkippableMagic, 8u})
        for (int i = 0; i < 4; ++i) trailer.push_back(char(uint8_t(v >> (8 * i))));
    for (int i = 0; i < 8; ++i) trailer.push_back(char(uint8_t(summaryOffset >> (8 * i))));
    output_ += trailer;
    if (!writeOut(output_.data(), output_.size())) return failed();
    output_.clear();
    if (FVFileSystemFlush::fsync(file_) != 0) {
        fail("cannot flush the run record", errno);
        return failed();
    }
    // A run's stamp is new, so a manifest of that name is never there; should it be, the
    // older one stays.
    if (FVRenames::renameat2(folder_, temporaryName_.c_str(), folder_, finalName_.c_str(), RENAME_NOREPLACE) != 0) {
        int err = errno;
        if (err == EINVAL || err == ENOSYS || err == EOPNOTSUPP) {
            // File systems without the no-replace rename; the destination's lock keeps others out.
            struct stat st;
            if (FVFileStatus::fstatat(folder_, finalName_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) err = EEXIST;
            else if (errno != ENOENT) err = errno;
            else err = FVRenames::renameat(folder_, temporaryName_.c_str(), folder_, finalName_.c_str()) == 0 ? 0 : errno;
        }
        if (err) {
            fail("cannot name the run record " + finalName_, err);
            return failed();
        }
    }
    closeFile();
    created_ = false;
    finished_ = true;
    if (FVFileSystemFlush::fsync(folder_) != 0 && errno != EINVAL) {
        fail("cannot flush the folder of run records", errno);
        *error = error_;
        return false;
    }
    return true;
}

}  // namespace ferrovane
