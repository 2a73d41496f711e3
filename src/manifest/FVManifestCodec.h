#pragma once
// The bytes of a manifest's records before compression: variable-length integers, strings with
// their length, and one function per record to write and to read it. The layout is described in
// docs/manifest.md; the writer and the reader share this code so that they cannot disagree.

#include "manifest/FVManifestEntry.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace ferrovane::FVManifestCodec {

inline constexpr std::string_view kMagic = "FVMANIFEST";
inline constexpr uint32_t kFormatVersion = 1;

enum Tag : uint8_t { kHeader = 'H', kAttributeSet = 'A', kEntry = 'E', kSummary = 'S' };

// Reads what a record's payload holds; every read past the end makes it bad.
class Input {
public:
    explicit Input(std::string_view bytes) : bytes_(bytes) {}
    uint64_t varint();
    int64_t signedVarint();
    uint8_t byte();
    std::string_view string();
    uint64_t fixed64();
    bool bad() const { return bad_; }
    bool atEnd() const { return position_ == bytes_.size(); }

private:
    std::string_view bytes_;
    size_t position_ = 0;
    bool bad_ = false;
};

void putVarint(std::string& out, uint64_t value);
void putSignedVarint(std::string& out, int64_t value);
void putString(std::string& out, std::string_view value);
void putFixed64(std::string& out, uint64_t value);
// A record: its tag, the payload's length and the payload.
void putRecord(std::string& out, Tag tag, std::string_view payload);

std::string encodeHeader(const FVManifestHeader& header);
bool decodeHeader(std::string_view payload, FVManifestHeader& header);

std::string encodeAttributeSet(uint64_t id, const FVManifestAttributes& attributes);
bool decodeAttributeSet(std::string_view payload, uint64_t& id, FVManifestAttributes& attributes);

// Paths are written as the length they share with the previous entry's path and the rest;
// attributeSet is the id of a set written before (0 for none).
std::string encodeEntry(const FVManifestEntry& entry, std::string_view previousPath, uint64_t attributeSet);
// Fills everything but the attributes, whose set id it returns in attributeSet.
bool decodeEntry(std::string_view payload, std::string_view previousPath, FVManifestEntry& entry,
                 uint64_t& attributeSet);

std::string encodeSummary(const FVManifestSummary& summary);
bool decodeSummary(std::string_view payload, FVManifestSummary& summary);

}  // namespace ferrovane::FVManifestCodec
