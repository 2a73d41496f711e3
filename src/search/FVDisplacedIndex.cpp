#include "search/FVDisplacedIndex.h"

#include "fs/FVFileData.h"
#include "fs/FVFileStatus.h"
#include "fs/FVItemCreation.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVRemovals.h"
#include "fs/FVRenames.h"
#include "manifest/FVContentHash.h"
#include "manifest/FVManifestReader.h"
#include "manifest/FVPathKey.h"
#include "platform/FVHomeDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>

namespace ferrovane {

namespace {

constexpr std::string_view kMagic = "FVDISPLACED 1\n";
// The end of a manifest holds its summary, with the time the run finished, and where the summary
// begins: with the sizes, that names the pair of runs wherever the destination is mounted.
constexpr off_t kTailBytes = 128;

uint64_t mixed(uint64_t seed, uint64_t value) { return seed ^ (value + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2)); }

uint64_t hashOf(std::string_view bytes) { return std::hash<std::string_view>{}(bytes); }

// Two entries with one fingerprint record the same item. Anything that can make a run archive the
// item counts; a difference that only touched the mirror in place costs one look too many in the
// archive folders, never a version left out.
uint64_t fingerprint(const FVManifestEntry& entry) {
    uint64_t f = mixed(uint64_t(entry.type), entry.size);
    f = mixed(f, uint64_t(entry.modificationTimeNs));
    f = mixed(f, entry.hash ? entry.hash->high : 0);
    f = mixed(f, entry.hash ? entry.hash->low : 1);
    f = mixed(f, hashOf(entry.linkTarget));
    for (const auto& [name, value] : entry.attributes) f = mixed(mixed(f, hashOf(name)), hashOf(value));
    f = mixed(f, entry.mode);
    f = mixed(f, uint64_t(entry.owner) << 32 | entry.group);
    return mixed(f, entry.failed);
}

bool appendTail(FVContentHasher& hasher, const std::string& path) {
    int fd = FVOpenFiles::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    std::string tail;
    bool read = FVFileStatus::fstat(fd, &st) == 0;
    if (read) {
        tail.resize(size_t(std::min<off_t>(st.st_size, kTailBytes)));
        read = FVFileData::pread(fd, tail.data(), tail.size(), st.st_size - off_t(tail.size())) == ssize_t(tail.size());
    }
    FVOpenFiles::close(fd);
    uint64_t size = uint64_t(st.st_size);
    hasher.update(&size, sizeof size);
    hasher.update(tail.data(), tail.size());
    return read;
}

void appendVarint(std::string& out, uint64_t value) {
    for (; value >= 0x80; value >>= 7) out += char(value | 0x80);
    out += char(value);
}

bool readVarint(std::string_view in, size_t& at, uint64_t& value) {
    value = 0;
    for (int shift = 0; at < in.size() && shift < 64; shift += 7) {
        unsigned char byte = static_cast<unsigned char>(in[at++]);
        value |= uint64_t(byte & 0x7f) << shift;
        if (!(byte & 0x80)) return true;
    }
    return false;
}

std::string digestOf(std::string_view bytes) {
    FVContentHasher hasher;
    hasher.update(bytes.data(), bytes.size());
    return hasher.digest().hex();
}

}  // namespace

std::string FVDisplacedIndex::userCacheFolder() {
    const char* cache = std::getenv("XDG_CACHE_HOME");
    if (cache && cache[0] == '/') return std::string(cache) + "/ferrovane/displaced";
    std::string home = homeDirectory();
    return home.empty() ? "" : home + "/.cache/ferrovane/displaced";
}

std::string FVDisplacedIndex::cachePath(const std::string& before, const std::string& after) const {
    if (cacheFolder_.empty()) return "";
    FVContentHasher hasher;
    hasher.update(kMagic.data(), kMagic.size());
    if (!appendTail(hasher, before) || !appendTail(hasher, after)) return "";
    return cacheFolder_ + "/" + hasher.digest().hex();
}

std::optional<std::vector<FVDisplacedIndex::Item>> FVDisplacedIndex::displaced(
    const std::string& before, const std::string& after, const std::function<bool()>& stopped,
    std::string* problem) const {
    std::string cached = cachePath(before, after);
    if (!cached.empty())
        if (auto items = load(cached)) return items;
    auto items = compute(before, after, stopped, problem);
    if (items && !cached.empty()) store(cached, *items);
    return items;
}

std::optional<std::vector<FVDisplacedIndex::Item>> FVDisplacedIndex::compute(
    const std::string& before, const std::string& after, const std::function<bool()>& stopped,
    std::string* problem) const {
    // The later manifest as (path hash, fingerprint), sorted: 16 bytes an entry.
    std::vector<std::pair<uint64_t, uint64_t>> later;
    auto reader = FVManifestReader::open(after, problem);
    if (!reader) return std::nullopt;
    FVManifestEntry entry;
    while (reader->next(entry)) {
        if (stopped()) return std::nullopt;
        later.emplace_back(FVPathKey::of(entry.path), fingerprint(entry));
    }
    if (reader->damaged()) {
        *problem = reader->error();
        return std::nullopt;
    }
    std::sort(later.begin(), later.end());

    std::vector<Item> items;
    std::set<std::string> folders;
    reader = FVManifestReader::open(before, problem);
    if (!reader) return std::nullopt;
    while (reader->next(entry)) {
        if (stopped()) return std::nullopt;
        std::pair<uint64_t, uint64_t> key(FVPathKey::of(entry.path), fingerprint(entry));
        if (std::binary_search(later.begin(), later.end(), key)) continue;
        for (size_t slash = entry.path.find('/', 1); slash != std::string::npos; slash = entry.path.find('/', slash + 1))
            folders.insert(entry.path.substr(0, slash));
        if (entry.type == FVManifestEntryType::Folder) folders.insert(entry.path);
        else items.push_back({entry.path, entry.type});
    }
    if (reader->damaged()) {
        *problem = reader->error();
        return std::nullopt;
    }
    for (const std::string& folder : folders) items.push_back({folder, FVManifestEntryType::Folder});
    return items;
}

std::optional<std::vector<FVDisplacedIndex::Item>> FVDisplacedIndex::load(const std::string& path) {
    int fd = FVOpenFiles::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string bytes;
    char buffer[1 << 16];
    ssize_t got = 0;
    while ((got = FVFileData::read(fd, buffer, sizeof buffer)) > 0) bytes.append(buffer, size_t(got));
    FVOpenFiles::close(fd);
    // The digest of everything before it ends the file: a file cut short or changed is no index.
    constexpr size_t kDigest = 32;
    if (got < 0 || bytes.size() < kMagic.size() + kDigest || !bytes.starts_with(kMagic)) return std::nullopt;
    std::string_view body(bytes.data(), bytes.size() - kDigest);
    if (digestOf(body) != std::string_view(bytes).substr(body.size())) return std::nullopt;
    std::vector<Item> items;
    for (size_t at = kMagic.size(); at < body.size();) {
        Item item;
        item.type = FVManifestEntryType(body[at++]);
        uint64_t length = 0;
        if (!readVarint(body, at, length) || length > body.size() - at) return std::nullopt;
        item.path.assign(body.substr(at, size_t(length)));
        at += size_t(length);
        items.push_back(std::move(item));
    }
    return items;
}

void FVDisplacedIndex::store(const std::string& path, const std::vector<Item>& items) {
    std::string folder = path.substr(0, path.rfind('/'));
    for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1))
        FVItemCreation::mkdir(folder.substr(0, slash).c_str(), 0700);
    FVItemCreation::mkdir(folder.c_str(), 0700);
    std::string bytes(kMagic);
    for (const Item& item : items) {
        bytes += char(item.type);
        appendVarint(bytes, item.path.size());
        bytes += item.path;
    }
    bytes += digestOf(bytes);
    // Written aside and renamed, so that a search beside this one reads the whole list or none.
    std::string temporary = path + ".tmp-" + std::to_string(std::random_device{}());
    int fd = FVOpenFiles::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return;
    bool written = FVFileData::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
    if (FVOpenFiles::close(fd) != 0) written = false;
    if (!written || FVRenames::rename(temporary.c_str(), path.c_str()) != 0) FVRemovals::unlink(temporary.c_str());
}

}  // namespace ferrovane
