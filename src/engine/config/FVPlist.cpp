#include "engine/config/FVPlist.h"

#include "engine/config/FVPlistNesting.h"

#include <plist/plist.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace ferrovane {

namespace {

// Property-list dates count from 2001-01-01 UTC.
constexpr double kSecondsFrom1970To2001 = 978307200.0;

struct PlistNodeDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using UniqueNode = std::unique_ptr<void, PlistNodeDeleter>;

// The leading integer of a string, as NSString's integer reading takes it.
int64_t leadingInteger(const std::string& s) {
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    int64_t value = 0;
    for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
        if (value > (INT64_MAX - 9) / 10) return negative ? INT64_MIN : INT64_MAX;
        value = value * 10 + (s[i] - '0');
    }
    return negative ? -value : value;
}

bool leadingBool(const std::string& s) {
    size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    if (i < s.size() && (s[i] == 'Y' || s[i] == 'y' || s[i] == 'T' || s[i] == 't')) return true;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    while (i < s.size() && s[i] == '0') ++i;
    return i < s.size() && s[i] >= '1' && s[i] <= '9';
}

PlistValue fromNode(plist_t node, int depth);

PlistValue fromNode(plist_t node, int depth) {
    if (depth > 512) return PlistValue(std::string());  // absurd nesting: keep the file readable
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return PlistValue(b != 0);
    }
    case PLIST_UINT: {
        uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return PlistValue(static_cast<int64_t>(u));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return PlistValue(d);
    }
    case PLIST_STRING: {
        // A string holding a zero byte makes plist_get_string_val assert; it ends at that byte.
        uint64_t length = 0;
        const char* s = plist_get_string_ptr(node, &length);
        return PlistValue(s ? std::string(s, strnlen(s, length)) : std::string());
    }
    case PLIST_KEY: {
        char* s = nullptr;
        plist_get_key_val(node, &s);
        std::string str = s ? s : "";
        free(s);
        return PlistValue(std::move(str));
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return PlistValue(PlistDate{kSecondsFrom1970To2001 + sec + usec / 1e6});
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        PlistData data;
        if (bytes) data.bytes.assign(reinterpret_cast<uint8_t*>(bytes),
                                     reinterpret_cast<uint8_t*>(bytes) + length);
        free(bytes);
        return PlistValue(std::move(data));
    }
    case PLIST_UID: {
        uint64_t u = 0;
        plist_get_uid_val(node, &u);
        return PlistValue(PlistUid{u});
    }
    case PLIST_ARRAY: {
        auto array = std::make_shared<PlistArray>();
        uint32_t n = plist_array_get_size(node);
        array->reserve(n);
        for (uint32_t i = 0; i < n; ++i) array->push_back(fromNode(plist_array_get_item(node, i), depth + 1));
        return PlistValue(std::move(array));
    }
    case PLIST_DICT: {
        auto dict = std::make_shared<PlistDict>();
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                free(key);
                break;
            }
            dict->set(key ? key : "", fromNode(item, depth + 1));
            free(key);
        }
        free(it);
        return PlistValue(std::move(dict));
    }
    default:
        return PlistValue(std::string());
    }
}

plist_t toNode(const PlistValue& value) {
    return std::visit(
        [](const auto& v) -> plist_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>) return plist_new_bool(v ? 1 : 0);
            else if constexpr (std::is_same_v<T, int64_t>) return plist_new_uint(static_cast<uint64_t>(v));
            else if constexpr (std::is_same_v<T, double>) return plist_new_real(v);
            else if constexpr (std::is_same_v<T, std::string>) return plist_new_string(v.c_str());
            else if constexpr (std::is_same_v<T, PlistDate>) {
                double since2001 = v.secondsSince1970 - kSecondsFrom1970To2001;
                double whole = std::floor(since2001);
                double micro = std::round((since2001 - whole) * 1e6);
                // The file format keeps 32-bit seconds: later or earlier dates are kept at its ends.
                if (!(whole >= INT32_MIN && whole <= INT32_MAX)) {
                    whole = whole > 0 ? INT32_MAX : INT32_MIN;
                    micro = 0;
                }
                return plist_new_date(static_cast<int32_t>(whole), static_cast<int32_t>(micro));
            } else if constexpr (std::is_same_v<T, PlistData>)
                return plist_new_data(reinterpret_cast<const char*>(v.bytes.data()), v.bytes.size());
            else if constexpr (std::is_same_v<T, PlistUid>) return plist_new_uid(v.value);
            else if constexpr (std::is_same_v<T, PlistArrayPtr>) {
                plist_t node = plist_new_array();
                if (v) for (const auto& item : *v) plist_array_append_item(node, toNode(item));
                return node;
            } else {
                plist_t node = plist_new_dict();
                if (v) for (const auto& [key, item] : v->entries()) plist_dict_set_item(node, key.c_str(), toNode(item));
                return node;
            }
        },
        value.storage());
}

}  // namespace

const PlistValue* PlistDict::find(std::string_view key) const {
    for (const auto& entry : entries_)
        if (entry.first == key) return &entry.second;
    return nullptr;
}

PlistValue* PlistDict::find(std::string_view key) {
    for (auto& entry : entries_)
        if (entry.first == key) return &entry.second;
    return nullptr;
}

void PlistDict::set(std::string key, PlistValue value) {
    if (PlistValue* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
}

bool PlistDict::remove(std::string_view key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first == key) {
            entries_.erase(it);
            return true;
        }
    }
    return false;
}

int64_t PlistDict::integerValue(std::string_view key) const {
    const PlistValue* v = find(key);
    return v ? v->integerValue() : 0;
}

bool PlistDict::boolValue(std::string_view key) const {
    const PlistValue* v = find(key);
    return v && v->boolValue();
}

std::optional<std::string> PlistDict::stringValue(std::string_view key) const {
    const PlistValue* v = find(key);
    if (!v || !v->string()) return std::nullopt;
    return *v->string();
}

bool PlistDict::operator==(const PlistDict& other) const {
    return entries_ == other.entries_;
}

int64_t PlistValue::integerValue() const {
    if (auto i = get<int64_t>()) return *i;
    if (auto b = get<bool>()) return *b ? 1 : 0;
    if (auto d = get<double>()) {
        if (std::isnan(*d)) return 0;
        if (*d >= 9.2e18) return INT64_MAX;
        if (*d <= -9.2e18) return INT64_MIN;
        return static_cast<int64_t>(*d);
    }
    if (auto s = get<std::string>()) return leadingInteger(*s);
    return 0;
}

double PlistValue::doubleValue() const {
    if (auto d = get<double>()) return *d;
    if (auto s = get<std::string>()) return std::strtod(s->c_str(), nullptr);
    return static_cast<double>(integerValue());
}

bool PlistValue::boolValue() const {
    if (auto s = get<std::string>()) return leadingBool(*s);
    if (auto d = get<double>()) return *d != 0.0;
    return integerValue() != 0;
}

bool PlistValue::isNumeric() const {
    return is<int64_t>() || is<double>() || is<bool>();
}

const char* PlistValue::typeName() const {
    static constexpr const char* names[] = {"boolean", "integer", "real", "string", "date",
                                            "data",    "uid",     "array", "dictionary"};
    return names[v_.index()];
}

bool PlistValue::operator==(const PlistValue& other) const {
    if (v_.index() != other.v_.index()) return false;
    if (auto a = array()) {
        const auto& b = *other.array();
        if (!*a || !b) return !*a == !b;
        return **a == *b;
    }
    if (auto a = dict()) {
        const auto& b = *other.dict();
        if (!*a || !b) return !*a == !b;
        return **a == *b;
    }
    return v_ == other.v_;
}

PlistValue deepCopy(const PlistValue& value) {
    if (auto a = value.array()) {
        auto copy = std::make_shared<PlistArray>();
        if (*a) for (const auto& item : **a) copy->push_back(deepCopy(item));
        return PlistValue(std::move(copy));
    }
    if (auto d = value.dict()) {
        auto copy = std::make_shared<PlistDict>();
        if (*d) for (const auto& [key, item] : (*d)->entries()) copy->set(key, deepCopy(item));
        return PlistValue(std::move(copy));
    }
    return value;
}

namespace {

uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

// libplist asserts on reading a string or key of a binary list that holds a zero byte (or a
// zero UTF-16 unit), so such a list is refused before it is parsed.
bool binaryStringHoldsZero(std::string_view bytes) {
    const auto* b = reinterpret_cast<const uint8_t*>(bytes.data());
    const uint64_t size = bytes.size();
    if (size < 40 || !bytes.starts_with("bplist")) return false;
    const uint8_t* trailer = b + size - 32;
    const size_t offsetSize = trailer[6];
    const uint64_t count = bigEndian(trailer + 8, 8), table = bigEndian(trailer + 24, 8);
    if (offsetSize == 0 || offsetSize > 8 || table >= size || count > (size - table) / offsetSize) return false;
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t at = bigEndian(b + table + i * offsetSize, offsetSize);
        if (at >= size || (b[at] >> 4 != 5 && b[at] >> 4 != 6)) continue;
        const bool wide = b[at] >> 4 == 6;
        uint64_t length = b[at] & 0xf, start = at + 1;
        if (length == 0xf) {
            if (start >= size || b[start] >> 4 != 1) continue;
            size_t n = size_t{1} << (b[start] & 0xf);
            if (n > 8 || n + 1 > size - start) continue;
            length = bigEndian(b + start + 1, n);
            start += 1 + n;
        }
        if (length > (size - start) / (wide ? 2 : 1)) continue;
        for (uint64_t j = 0; j < length; ++j)
            if (wide ? (b[start + 2 * j] | b[start + 2 * j + 1]) == 0 : b[start + j] == 0) return true;
    }
    return false;
}

}  // namespace

PlistParseResult parsePlist(std::string_view bytes) {
    if (bytes.empty()) return {std::nullopt, "the file is empty"};
    if (bytes.size() > UINT32_MAX) return {std::nullopt, "the file is too large"};
    if (binaryStringHoldsZero(bytes)) return {std::nullopt, "a string holds a zero byte"};
    if (auto refusal = FVPlistNesting::refusal(bytes)) return {std::nullopt, std::move(*refusal)};
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
    if (!root) return {std::nullopt, "not a property list"};
    UniqueNode guard(root);
    return {fromNode(root, 0), {}};
}

std::string serializePlistXML(const PlistValue& value) {
    UniqueNode root(toNode(value));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(root.get()), &xml, &length);
    std::string out = xml ? std::string(xml, length) : std::string();
    free(xml);
    return out;
}

}  // namespace ferrovane
