#include "engine/config/FVPlistNesting.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace ferrovane {

namespace {

uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

bool isNameCharacter(char c) { return c != '>' && c != '/' && c != ' ' && c != '\t' && c != '\r' && c != '\n'; }

// The object references of a binary container: the range of its reference bytes, or nothing for
// any other object (and for a malformed one, which libplist then refuses by itself).
struct References {
    uint64_t start = 0;
    uint64_t count = 0;
};

std::optional<References> referencesAt(const uint8_t* b, uint64_t size, uint64_t at, size_t refSize) {
    const uint8_t type = b[at] >> 4;
    if (type != 0xA && type != 0xC && type != 0xD) return std::nullopt;  // array, set, dictionary
    uint64_t count = b[at] & 0xf, start = at + 1;
    if (count == 0xf) {
        if (start >= size || b[start] >> 4 != 1) return std::nullopt;
        const size_t n = size_t{1} << (b[start] & 0xf);
        if (n > 8 || n + 1 > size - start) return std::nullopt;
        count = bigEndian(b + start + 1, n);
        start += 1 + n;
    }
    if (type == 0xD) {
        if (count > UINT64_MAX / 2) return std::nullopt;
        count *= 2;  // keys, then values
    }
    if (count > (size - start) / refSize) return std::nullopt;
    return References{start, count};
}

std::string tooDeep() {
    return "arrays and dictionaries nest more than " + std::to_string(FVPlistNesting::kLimit) + " levels deep";
}

}  // namespace

std::optional<std::string> FVPlistNesting::refusal(std::string_view bytes) {
    return bytes.starts_with("bplist") ? binaryRefusal(bytes) : xmlRefusal(bytes);
}

// Every "<" counts, inside comments and character data too: a reader that took them for tags
// must not find more nesting than was counted. A stray closing tag never lowers the count below
// zero, so it cannot hide the openings after it.
std::optional<std::string> FVPlistNesting::xmlRefusal(std::string_view xml) {
    int depth = 0;
    size_t tagEnd = 0;
    for (size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
        if (tagEnd <= at) tagEnd = xml.find('>', at);
        if (tagEnd == std::string_view::npos) break;
        const bool closing = at + 1 < tagEnd && xml[at + 1] == '/';
        const size_t nameStart = at + (closing ? 2 : 1);
        size_t nameEnd = nameStart;
        // One more character than "array" tells a longer name from it.
        while (nameEnd < tagEnd && nameEnd - nameStart < 6 && isNameCharacter(xml[nameEnd])) ++nameEnd;
        const std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
        if (name != "array" && name != "dict") continue;
        if (closing) depth = std::max(0, depth - 1);
        else if (xml[tagEnd - 1] != '/' && ++depth > kLimit) return tooDeep();
    }
    return std::nullopt;
}

std::optional<std::string> FVPlistNesting::binaryRefusal(std::string_view bytes) {
    const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
    const uint64_t size = bytes.size();
    if (size < 40) return std::nullopt;
    const uint8_t* trailer = b + size - 32;
    const size_t offsetSize = trailer[6], refSize = trailer[7];
    const uint64_t count = bigEndian(trailer + 8, 8), top = bigEndian(trailer + 16, 8), table = bigEndian(trailer + 24, 8);
    if (offsetSize == 0 || offsetSize > 8 || refSize == 0 || refSize > 8 || table >= size ||
        count > (size - table) / offsetSize || top >= count)
        return std::nullopt;
    auto offsetOf = [&](uint64_t index) { return bigEndian(b + table + index * offsetSize, offsetSize); };

    // Depth first with an explicit stack. Each object's height (containers down to its deepest
    // leaf, itself included) and expanded size (values once every reference is copied) are
    // kept, so that shared objects are walked once; an object met again while it is on the
    // stack is a loop.
    enum : uint8_t { Unseen, OnStack, Done };
    std::vector<uint8_t> state(count, Unseen);
    std::vector<uint8_t> height(count, 0);
    std::vector<uint64_t> values(count, 1);
    struct Frame {
        uint64_t index;
        References refs;
        uint64_t next = 0;
        uint8_t tallestChild = 0;
        uint64_t values = 1;
    };
    const std::string tooLarge = "its shared objects expand to more than " + std::to_string(kMaximumValues) + " values";
    auto add = [&](Frame& frame, uint64_t more) {
        frame.values += more;
        return frame.values > kMaximumValues;
    };
    std::vector<Frame> stack;
    auto enter = [&](uint64_t index) {
        const uint64_t at = offsetOf(index);
        std::optional<References> refs = at < size ? referencesAt(b, size, at, refSize) : std::nullopt;
        state[index] = refs ? OnStack : Done;
        if (refs) stack.push_back({index, *refs});
    };
    enter(top);
    while (!stack.empty()) {
        if (stack.size() > static_cast<size_t>(kLimit)) return tooDeep();
        Frame& frame = stack.back();
        if (frame.next == frame.refs.count) {
            state[frame.index] = Done;
            const uint8_t own = height[frame.index] = static_cast<uint8_t>(frame.tallestChild + 1);
            const uint64_t expanded = values[frame.index] = frame.values;
            stack.pop_back();
            if (stack.empty()) break;
            stack.back().tallestChild = std::max(stack.back().tallestChild, own);
            if (add(stack.back(), expanded)) return tooLarge;
            continue;
        }
        const uint64_t child = bigEndian(b + frame.refs.start + frame.next++ * refSize, refSize);
        if (child >= count) continue;
        if (state[child] == OnStack) return tooDeep();
        if (state[child] == Unseen) {
            enter(child);
            if (state[child] == Done && add(frame, 1)) return tooLarge;
            continue;
        }
        if (stack.size() + height[child] > static_cast<size_t>(kLimit)) return tooDeep();
        frame.tallestChild = std::max(frame.tallestChild, height[child]);
        if (add(frame, values[child])) return tooLarge;
    }
    return std::nullopt;
}

}  // namespace ferrovane
