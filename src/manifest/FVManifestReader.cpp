#include "manifest/FVManifestReader.h"

#include "fs/FVOpenFiles.h"
#include "manifest/FVManifestCodec.h"

#include <zstd.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

constexpr size_t kReadSize = 1 << 16;
constexpr uint32_t kSkippableMagic = 0x184D2A5E;
// No record comes near this; a larger length is damage, not a reason to allocate.
constexpr uint64_t kLargestRecord = 64u << 20;

uint32_t littleEndian32(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

std::unique_ptr<FVManifestReader> FVManifestReader::open(const std::string& path, std::string* error) {
    FILE* file = FVOpenFiles::fopen(path.c_str(), "rbe");
    if (!file) {
        *error = "cannot open " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<FVManifestReader> reader(new FVManifestReader(file, path));
    reader->stream_ = ZSTD_createDStream();
    if (!reader->stream_) {
        *error = "out of memory to read " + path;
        return nullptr;
    }
    size_t magic = FVManifestCodec::kMagic.size();
    if (!reader->fill(magic) ||
        std::string_view(reader->data_).substr(0, magic) != FVManifestCodec::kMagic) {
        *error = path + " is no run record" + (reader->error_.empty() ? "" : " (" + reader->error_ + ")");
        return nullptr;
    }
    reader->dataPosition_ = magic;
    if (!reader->fill(10)) reader->fill(1);
    FVManifestCodec::Input version(std::string_view(reader->data_).substr(reader->dataPosition_, 10));
    uint64_t formatVersion = version.varint();
    if (version.bad() || formatVersion != FVManifestCodec::kFormatVersion) {
        *error = path + " is a run record of format " + std::to_string(formatVersion) +
                 ", which this version of the program cannot read";
        return nullptr;
    }
    reader->dataPosition_ += 1;  // format 1 is one byte long
    reader->header_.formatVersion = uint32_t(formatVersion);
    uint8_t tag = 0;
    if (!reader->readRecord(tag, reader->payload_) || tag != FVManifestCodec::kHeader ||
        !FVManifestCodec::decodeHeader(reader->payload_, reader->header_)) {
        *error = path + " is damaged: its header cannot be read";
        return nullptr;
    }
    reader->header_.formatVersion = uint32_t(formatVersion);
    return reader;
}

FVManifestReader::FVManifestReader(FILE* file, std::string path) : file_(file), path_(std::move(path)) {}

FVManifestReader::~FVManifestReader() {
    if (stream_) ZSTD_freeDStream(static_cast<ZSTD_DStream*>(stream_));
    FVOpenFiles::fclose(file_);
}

void FVManifestReader::damage(const std::string& what) {
    if (error_.empty()) error_ = path_ + " is damaged: " + what;
}

bool FVManifestReader::fill(size_t n) {
    auto* dstream = static_cast<ZSTD_DStream*>(stream_);
    if (dataPosition_ > (1u << 20)) {
        data_.erase(0, dataPosition_);
        dataPosition_ = 0;
    }
    while (data_.size() - dataPosition_ < n) {
        if (inputPosition_ == input_.size()) {
            if (inputEnded_) {
                if (frameLeft_ != 0) damage("it ends in the middle of its data");
                return false;
            }
            input_.resize(kReadSize);
            size_t got = std::fread(input_.data(), 1, kReadSize, file_);
            if (got < kReadSize) {
                if (std::ferror(file_)) {
                    damage(std::string("it cannot be read: ") + std::strerror(errno));
                    return false;
                }
                inputEnded_ = true;
            }
            input_.resize(got);
            inputPosition_ = 0;
            continue;
        }
        ZSTD_inBuffer in{input_.data(), input_.size(), inputPosition_};
        size_t before = data_.size();
        data_.resize(before + kReadSize);
        ZSTD_outBuffer out{data_.data() + before, kReadSize, 0};
        size_t left = ZSTD_decompressStream(dstream, &out, &in);
        data_.resize(before + out.pos);
        inputPosition_ = in.pos;
        if (ZSTD_isError(left)) {
            damage(ZSTD_getErrorName(left));
            return false;
        }
        frameLeft_ = left;
    }
    return true;
}

bool FVManifestReader::readRecord(uint8_t& tag, std::string& payload) {
    if (!fill(1)) return false;
    tag = uint8_t(data_[dataPosition_]);
    // The tag and a length of at most ten bytes.
    fill(11);
    FVManifestCodec::Input in(std::string_view(data_).substr(dataPosition_ + 1, 10));
    uint64_t length = in.varint();
    if (in.bad() || length > kLargestRecord) {
        damage("a record's length cannot be read");
        return false;
    }
    size_t lengthBytes = 1;
    for (uint64_t v = length; v >= 0x80; v >>= 7) ++lengthBytes;
    size_t total = 1 + lengthBytes + size_t(length);
    if (!fill(total)) {
        damage("it ends in the middle of a record");
        return false;
    }
    payload.assign(data_, dataPosition_ + 1 + lengthBytes, size_t(length));
    dataPosition_ += total;
    return true;
}

bool FVManifestReader::next(FVManifestEntry& entry) {
    uint8_t tag = 0;
    while (!ended_ && readRecord(tag, payload_)) {
        if (tag == FVManifestCodec::kEntry) {
            uint64_t set = 0;
            if (!FVManifestCodec::decodeEntry(payload_, previousPath_, entry, set)) {
                damage("an entry cannot be read");
                break;
            }
            if (set) {
                auto it = attributeSets_.find(set);
                if (it == attributeSets_.end()) {
                    damage("an entry names attributes that are not there");
                    break;
                }
                entry.attributes = it->second;
            }
            previousPath_ = entry.path;
            return true;
        }
        if (tag == FVManifestCodec::kAttributeSet) {
            uint64_t id = 0;
            FVManifestAttributes attributes;
            if (!FVManifestCodec::decodeAttributeSet(payload_, id, attributes)) {
                damage("a set of attributes cannot be read");
                break;
            }
            attributeSets_[id] = std::move(attributes);
        } else if (tag == FVManifestCodec::kSummary) {
            FVManifestSummary summary;
            if (!FVManifestCodec::decodeSummary(payload_, summary)) {
                damage("its summary cannot be read");
                break;
            }
            summary_ = summary;
        }
        // Records of other tags come from a later version of the same format: passed over.
    }
    ended_ = true;
    if (!summary_ && error_.empty()) damage("it was never finished");
    if (!error_.empty()) summary_.reset();
    return false;
}

std::optional<FVManifestSummary> FVManifestReader::readSummary(const std::string& path, std::string* error) {
    FILE* file = FVOpenFiles::fopen(path.c_str(), "rbe");
    if (!file) {
        *error = "cannot open " + path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> closer(file, FVOpenFiles::fclose);
    unsigned char trailer[16];
    if (std::fseek(file, -16, SEEK_END) != 0 || std::fread(trailer, 1, 16, file) != 16 ||
        littleEndian32(trailer) != kSkippableMagic || littleEndian32(trailer + 4) != 8) {
        *error = path + " was never finished or is damaged";
        return std::nullopt;
    }
    uint64_t offset = 0;
    for (int i = 7; i >= 0; --i) offset = (offset << 8) | trailer[8 + i];
    long end = std::ftell(file) - 16;
    if (offset >= uint64_t(end) || uint64_t(end) - offset > 4096 || std::fseek(file, long(offset), SEEK_SET) != 0) {
        *error = path + " is damaged: its summary cannot be found";
        return std::nullopt;
    }
    std::string frame(size_t(uint64_t(end) - offset), '\0');
    if (std::fread(frame.data(), 1, frame.size(), file) != frame.size()) {
        *error = path + " cannot be read: " + std::strerror(errno);
        return std::nullopt;
    }
    char out[4096];
    size_t n = ZSTD_decompress(out, sizeof out, frame.data(), frame.size());
    FVManifestCodec::Input in(std::string_view(out, ZSTD_isError(n) ? 0 : n));
    FVManifestSummary summary;
    if (ZSTD_isError(n) || in.byte() != FVManifestCodec::kSummary || !FVManifestCodec::decodeSummary(in.string(), summary)) {
        *error = path + " is damaged: its summary cannot be read";
        return std::nullopt;
    }
    return summary;
}

}  // namespace ferrovane
