#include "engine/config/FVSourceItem.h"

namespace ferrovane {

std::shared_ptr<FVSourceItem> FVSourceItem::make(const std::string& sourcePath, FVSourceMode mode) {
    PlistDict dict;
    dict.set(FVSourceKey::sourcePath, sourcePath);
    dict.set(FVSourceKey::enabled, static_cast<int64_t>(mode));
    return std::make_shared<FVSourceItem>(std::move(dict));
}

std::string FVSourceItem::sourcePath() const {
    std::lock_guard lock(mutex_);
    return dict_.stringValue(FVSourceKey::sourcePath).value_or("");
}

int64_t FVSourceItem::enabled() const {
    std::lock_guard lock(mutex_);
    return dict_.integerValue(FVSourceKey::enabled);
}

std::optional<PlistValue> FVSourceItem::value(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const PlistValue* v = dict_.find(key);
    if (!v) return std::nullopt;
    return *v;
}

int64_t FVSourceItem::integerValue(std::string_view key) const {
    std::lock_guard lock(mutex_);
    return dict_.integerValue(key);
}

void FVSourceItem::setValue(std::string key, PlistValue value) {
    std::lock_guard lock(mutex_);
    dict_.set(std::move(key), std::move(value));
}

void FVSourceItem::removeValue(std::string_view key) {
    std::lock_guard lock(mutex_);
    dict_.remove(key);
}

PlistDict FVSourceItem::snapshot() const {
    std::lock_guard lock(mutex_);
    return dict_;
}

}  // namespace ferrovane
