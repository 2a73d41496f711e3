#pragma once
// An in-memory property list that keeps every value with the type it was stored as, so that
// a configuration read and written back loses nothing the program does not understand.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ferrovane {

class PlistDict;
class PlistValue;

// Property-list dates: seconds since 1970-01-01 UTC (fractions allowed).
struct PlistDate {
    double secondsSince1970 = 0;
    bool operator==(const PlistDate&) const = default;
};

struct PlistData {
    std::vector<uint8_t> bytes;
    bool operator==(const PlistData&) const = default;
};

struct PlistUid {
    uint64_t value = 0;
    bool operator==(const PlistUid&) const = default;
};

using PlistArray = std::vector<PlistValue>;
using PlistDictPtr = std::shared_ptr<PlistDict>;
using PlistArrayPtr = std::shared_ptr<PlistArray>;

// Containers are held by shared pointer: a copied value names the same container, which is
// how items stay shared between the source list, a run and the writer.
class PlistValue {
public:
    using Storage = std::variant<bool, int64_t, double, std::string, PlistDate, PlistData, PlistUid,
                                 PlistArrayPtr, PlistDictPtr>;

    PlistValue() : v_(int64_t{0}) {}
    PlistValue(bool b) : v_(b) {}
    PlistValue(int i) : v_(int64_t{i}) {}
    PlistValue(int64_t i) : v_(i) {}
    PlistValue(uint64_t i) : v_(static_cast<int64_t>(i)) {}
    PlistValue(double d) : v_(d) {}
    PlistValue(std::string s) : v_(std::move(s)) {}
    PlistValue(const char* s) : v_(std::string(s)) {}
    PlistValue(PlistDate d) : v_(d) {}
    PlistValue(PlistData d) : v_(std::move(d)) {}
    PlistValue(PlistUid u) : v_(u) {}
    PlistValue(PlistArrayPtr a) : v_(std::move(a)) {}
    PlistValue(PlistDictPtr d) : v_(std::move(d)) {}

    const Storage& storage() const { return v_; }
    template <class T> bool is() const { return std::holds_alternative<T>(v_); }
    template <class T> const T* get() const { return std::get_if<T>(&v_); }

    const PlistDictPtr* dict() const { return get<PlistDictPtr>(); }
    const PlistArrayPtr* array() const { return get<PlistArrayPtr>(); }
    const std::string* string() const { return get<std::string>(); }

    // Numeric readings in the manner of the stored options: integers and reals as they are,
    // booleans as 0/1, strings by their leading number, anything else 0.
    int64_t integerValue() const;
    double doubleValue() const;
    bool boolValue() const;
    // True for integers, reals and booleans: the types a number may be stored as.
    bool isNumeric() const;
    const char* typeName() const;

    // Deep comparison: containers compare by content, not by identity.
    bool operator==(const PlistValue& other) const;

private:
    Storage v_;
};

// Dictionaries keep the order in which keys were read or first set.
class PlistDict {
public:
    const PlistValue* find(std::string_view key) const;
    PlistValue* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    void set(std::string key, PlistValue value);
    bool remove(std::string_view key);
    size_t size() const { return entries_.size(); }
    const std::vector<std::pair<std::string, PlistValue>>& entries() const { return entries_; }

    // The readings of a stored option: a missing key reads as 0 / false, a string as its
    // leading number, a boolean as 0 or 1.
    int64_t integerValue(std::string_view key) const;
    bool boolValue(std::string_view key) const;
    std::optional<std::string> stringValue(std::string_view key) const;

    bool operator==(const PlistDict& other) const;

private:
    std::vector<std::pair<std::string, PlistValue>> entries_;
};

// A fresh, deep copy (new containers all the way down).
PlistValue deepCopy(const PlistValue& value);

struct PlistParseResult {
    std::optional<PlistValue> value;
    std::string error;  // empty on success
};

// Parses XML or binary property lists.
PlistParseResult parsePlist(std::string_view bytes);
// Serializes as an XML property list.
std::string serializePlistXML(const PlistValue& value);

}  // namespace ferrovane
