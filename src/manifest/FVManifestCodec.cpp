#include "manifest/FVManifestCodec.h"

#include <algorithm>

namespace ferrovane::FVManifestCodec {

namespace {

enum EntryFlag : uint64_t {
    kHasHash = 1,
    kFailed = 2,
    kHasAttributes = 4,
    kHasLinkGroup = 8,
    kHasSource = 16,
};

uint64_t zigzag(int64_t v) { return (uint64_t(v) << 1) ^ uint64_t(v >> 63); }
int64_t unzigzag(uint64_t v) { return int64_t(v >> 1) ^ -int64_t(v & 1); }

}  // namespace

uint64_t Input::varint() {
    uint64_t value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        if (position_ >= bytes_.size()) break;
        uint8_t b = uint8_t(bytes_[position_++]);
        value |= uint64_t(b & 0x7f) << shift;
        if (!(b & 0x80)) return value;
    }
    bad_ = true;
    return 0;
}

int64_t Input::signedVarint() { return unzigzag(varint()); }

uint8_t Input::byte() {
    if (position_ >= bytes_.size()) {
        bad_ = true;
        return 0;
    }
    return uint8_t(bytes_[position_++]);
}

std::string_view Input::string() {
    uint64_t length = varint();
    if (bad_ || length > bytes_.size() - position_) {
        bad_ = true;
        return {};
    }
    std::string_view s = bytes_.substr(position_, size_t(length));
    position_ += size_t(length);
    return s;
}

uint64_t Input::fixed64() {
    if (bytes_.size() - position_ < 8) {
        bad_ = true;
        return 0;
    }
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = (value << 8) | uint8_t(bytes_[position_++]);
    return value;
}

void putVarint(std::string& out, uint64_t value) {
    while (value >= 0x80) {
        out.push_back(char(uint8_t(value) | 0x80));
        value >>= 7;
    }
    out.push_back(char(value));
}

void putSignedVarint(std::string& out, int64_t value) { putVarint(out, zigzag(value)); }

void putString(std::string& out, std::string_view value) {
    putVarint(out, value.size());
    out.append(value);
}

void putFixed64(std::string& out, uint64_t value) {
    for (int i = 7; i >= 0; --i) out.push_back(char(uint8_t(value >> (8 * i))));
}

void putRecord(std::string& out, Tag tag, std::string_view payload) {
    out.push_back(char(tag));
    putString(out, payload);
}

std::string encodeHeader(const FVManifestHeader& header) {
    std::string out;
    putString(out, header.stamp);
    putSignedVarint(out, header.startedAtNs);
    putString(out, header.programVersion);
    out.push_back(header.folderPerSource ? 1 : 0);
    putVarint(out, header.sources.size());
    for (const auto& source : header.sources) putString(out, source);
    return out;
}

bool decodeHeader(std::string_view payload, FVManifestHeader& header) {
    Input in(payload);
    header.stamp = in.string();
    header.startedAtNs = in.signedVarint();
    header.programVersion = in.string();
    header.folderPerSource = in.byte() != 0;
    uint64_t count = in.varint();
    header.sources.clear();
    for (uint64_t i = 0; i < count && !in.bad(); ++i) header.sources.emplace_back(in.string());
    return !in.bad();
}

std::string encodeAttributeSet(uint64_t id, const FVManifestAttributes& attributes) {
    std::string out;
    putVarint(out, id);
    putVarint(out, attributes.size());
    for (const auto& [name, value] : attributes) {
        putString(out, name);
        putString(out, value);
    }
    return out;
}

bool decodeAttributeSet(std::string_view payload, uint64_t& id, FVManifestAttributes& attributes) {
    Input in(payload);
    id = in.varint();
    uint64_t count = in.varint();
    attributes.clear();
    for (uint64_t i = 0; i < count && !in.bad(); ++i) {
        std::string name(in.string());
        std::string value(in.string());
        attributes.emplace_back(std::move(name), std::move(value));
    }
    return !in.bad() && id != 0;
}

std::string encodeEntry(const FVManifestEntry& entry, std::string_view previousPath, uint64_t attributeSet) {
    uint64_t flags = 0;
    if (entry.hash) flags |= kHasHash;
    if (entry.failed) flags |= kFailed;
    if (attributeSet) flags |= kHasAttributes;
    if (entry.linkGroup) flags |= kHasLinkGroup;
    if (entry.sourceDevice || entry.sourceInode || entry.sourceChangeTimeNs) flags |= kHasSource;

    size_t shared = 0;
    size_t limit = std::min(previousPath.size(), entry.path.size());
    while (shared < limit && previousPath[shared] == entry.path[shared]) ++shared;

    std::string out;
    putVarint(out, flags);
    out.push_back(char(entry.type));
    putVarint(out, shared);
    putString(out, std::string_view(entry.path).substr(shared));
    putVarint(out, entry.size);
    putSignedVarint(out, entry.modificationTimeNs);
    putVarint(out, entry.mode);
    putVarint(out, entry.owner);
    putVarint(out, entry.group);
    if (entry.type == FVManifestEntryType::Link) putString(out, entry.linkTarget);
    if (flags & kHasAttributes) putVarint(out, attributeSet);
    if (flags & kHasLinkGroup) putVarint(out, entry.linkGroup);
    if (flags & kHasSource) {
        putVarint(out, entry.sourceDevice);
        putVarint(out, entry.sourceInode);
        // Usually close to the modification time, so the difference is short.
        putSignedVarint(out, entry.sourceChangeTimeNs - entry.modificationTimeNs);
    }
    if (entry.hash) {
        putFixed64(out, entry.hash->high);
        putFixed64(out, entry.hash->low);
    }
    return out;
}

bool decodeEntry(std::string_view payload, std::string_view previousPath, FVManifestEntry& entry,
                 uint64_t& attributeSet) {
    Input in(payload);
    uint64_t flags = in.varint();
    uint8_t type = in.byte();
    if (type < uint8_t(FVManifestEntryType::File) || type > uint8_t(FVManifestEntryType::Other)) return false;
    entry.type = FVManifestEntryType(type);
    uint64_t shared = in.varint();
    std::string_view rest = in.string();
    if (in.bad() || shared > previousPath.size()) return false;
    entry.path.assign(previousPath.substr(0, size_t(shared)));
    entry.path.append(rest);
    entry.size = in.varint();
    entry.modificationTimeNs = in.signedVarint();
    entry.mode = uint32_t(in.varint());
    entry.owner = uint32_t(in.varint());
    entry.group = uint32_t(in.varint());
    entry.linkTarget.clear();
    if (entry.type == FVManifestEntryType::Link) entry.linkTarget = in.string();
    attributeSet = (flags & kHasAttributes) ? in.varint() : 0;
    entry.attributes.clear();
    entry.linkGroup = (flags & kHasLinkGroup) ? in.varint() : 0;
    entry.sourceDevice = entry.sourceInode = 0;
    entry.sourceChangeTimeNs = 0;
    if (flags & kHasSource) {
        entry.sourceDevice = in.varint();
        entry.sourceInode = in.varint();
        entry.sourceChangeTimeNs = entry.modificationTimeNs + in.signedVarint();
    }
    entry.hash.reset();
    if (flags & kHasHash) {
        FVContentHash hash;
        hash.high = in.fixed64();
        hash.low = in.fixed64();
        entry.hash = hash;
    }
    entry.failed = (flags & kFailed) != 0;
    return !in.bad() && !entry.path.empty();
}

std::string encodeSummary(const FVManifestSummary& summary) {
    std::string out;
    out.push_back(char(summary.outcome));
    for (uint64_t v : {summary.entries, summary.files, summary.bytes, summary.copied, summary.archived,
                       summary.removed, summary.errors})
        putVarint(out, v);
    putSignedVarint(out, summary.finishedAtNs);
    return out;
}

bool decodeSummary(std::string_view payload, FVManifestSummary& summary) {
    Input in(payload);
    uint8_t outcome = in.byte();
    if (outcome < uint8_t(FVManifestOutcome::Complete) || outcome > uint8_t(FVManifestOutcome::Failed)) return false;
    summary.outcome = FVManifestOutcome(outcome);
    for (uint64_t* v : {&summary.entries, &summary.files, &summary.bytes, &summary.copied, &summary.archived,
                        &summary.removed, &summary.errors})
        *v = in.varint();
    summary.finishedAtNs = in.signedVarint();
    return !in.bad();
}

}  // namespace ferrovane::FVManifestCodec
