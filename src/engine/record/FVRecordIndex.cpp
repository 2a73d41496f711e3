#include "engine/record/FVRecordIndex.h"

#include "manifest/FVPathKey.h"

namespace ferrovane {

namespace {

// Linear probing stays short below this share of slots in use.
constexpr double kMaximumLoad = 0.75;

}  // namespace

size_t FVRecordIndex::slotOf(uint64_t key) const {
    // The high bits of key times the capacity: an even spread without a power-of-two size.
    return static_cast<size_t>((static_cast<unsigned __int128>(key) * slots_.size()) >> 64);
}

void FVRecordIndex::reserve(size_t paths) {
    size_t wanted = static_cast<size_t>(static_cast<double>(paths) / kMaximumLoad) + 16;
    if (wanted > slots_.size()) grow(wanted);
}

void FVRecordIndex::grow(size_t capacity) {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(capacity, Slot{});
    for (const Slot& slot : old) {
        if (slot.key == 0) continue;
        size_t i = slotOf(slot.key);
        while (slots_[i].key != 0) i = i + 1 == slots_.size() ? 0 : i + 1;
        slots_[i] = slot;
    }
}

FVRecordIndex::Record& FVRecordIndex::insert(uint64_t key) {
    if (static_cast<double>(size_ + 1) > static_cast<double>(slots_.size()) * kMaximumLoad)
        grow(slots_.size() + slots_.size() / 2 + 16);
    size_t i = slotOf(key);
    while (slots_[i].key != 0 && slots_[i].key != key) i = i + 1 == slots_.size() ? 0 : i + 1;
    if (slots_[i].key == 0) {
        slots_[i].key = key;
        slots_[i].record = Record{};
        ++size_;
    }
    return slots_[i].record;
}

FVRecordIndex::Record* FVRecordIndex::find(uint64_t key) {
    if (slots_.empty()) return nullptr;
    size_t i = slotOf(key);
    while (slots_[i].key != 0) {
        if (slots_[i].key == key) return &slots_[i].record;
        i = i + 1 == slots_.size() ? 0 : i + 1;
    }
    return nullptr;
}

FVRecordIndex::Record& FVRecordIndex::record(const FVManifestEntry& entry) {
    Record& record = insert(FVPathKey::of(entry.path));
    record.type = entry.type;
    record.failed = entry.failed;
    record.hasDigest = entry.type == FVManifestEntryType::File && entry.hash && !entry.failed;
    record.digest = record.hasDigest ? *entry.hash : FVContentHash{};
    return record;
}

void FVRecordIndex::forEach(const std::function<void(Record&)>& visit) {
    for (Slot& slot : slots_)
        if (slot.key != 0) visit(slot.record);
}

void FVRecordIndex::clear() {
    std::vector<Slot>().swap(slots_);
    size_ = 0;
}

}  // namespace ferrovane
