#include "engine/config/FVByteSafeEntry.h"

#include "fs/FVText.h"

#include <algorithm>
#include <vector>

namespace ferrovane {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isForbiddenControl(unsigned char c) { return c < 0x20 && c != '\t' && c != '\n'; }

// U+FFFE and U+FFFF, which are valid UTF-8 but no XML character.
bool isNonCharacterAt(std::string_view text, size_t i) {
    return text.substr(i, 2) == "\xEF\xBF" && i + 2 < text.size() &&
           (static_cast<unsigned char>(text[i + 2]) == 0xBE || static_cast<unsigned char>(text[i + 2]) == 0xBF);
}

}  // namespace

bool FVByteSafeEntry::isSafe(std::string_view text) { return readable(text) == text; }

std::string FVByteSafeEntry::readable(std::string_view text) {
    const std::string valid = FVText::validUTF8(text);
    std::string out;
    out.reserve(valid.size());
    for (size_t i = 0; i < valid.size(); ++i) {
        if (isForbiddenControl(static_cast<unsigned char>(valid[i]))) {
            out += kReplacement;
        } else if (isNonCharacterAt(valid, i)) {
            out += kReplacement;
            i += 2;
        } else {
            out += valid[i];
        }
    }
    return out;
}

PlistDict FVByteSafeEntry::encoded(const PlistDict& entry) {
    // A key of the entry's own that an unsafe string's bytes need gives way to them.
    std::vector<std::string> bytesKeys;
    for (const auto& [key, value] : entry.entries()) {
        const std::string* text = value.string();
        if (text && !isSafe(*text)) bytesKeys.push_back(key + std::string(kBytesSuffix));
    }
    PlistDict out;
    for (const auto& [key, value] : entry.entries()) {
        if (std::find(bytesKeys.begin(), bytesKeys.end(), key) != bytesKeys.end()) continue;
        const std::string* text = value.string();
        if (!text || isSafe(*text)) {
            out.set(key, value);
            continue;
        }
        out.set(key, readable(*text));
        out.set(key + std::string(kBytesSuffix), PlistData{std::vector<uint8_t>(text->begin(), text->end())});
    }
    return out;
}

void FVByteSafeEntry::decode(PlistDict& entry) {
    std::vector<std::string> bytesKeys;
    for (const auto& [key, value] : entry.entries()) {
        if (!key.ends_with(kBytesSuffix) || !value.is<PlistData>()) continue;
        const std::string textKey = key.substr(0, key.size() - kBytesSuffix.size());
        const PlistValue* text = entry.find(textKey);
        const std::vector<uint8_t>& bytes = value.get<PlistData>()->bytes;
        std::string exact(bytes.begin(), bytes.end());
        // Bytes that XML could carry were not written by this scheme: such a key is not ours.
        if (!text || !text->string() || isSafe(exact)) continue;
        bytesKeys.push_back(key);
        if (readable(exact) == *text->string()) *entry.find(textKey) = PlistValue(std::move(exact));
    }
    for (const std::string& key : bytesKeys) entry.remove(key);
}

}  // namespace ferrovane
