#include "engine/config/FVDestinationNames.h"

#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVText.h"

#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <unistd.h>
#include <wctype.h>

#include <fmt/format.h>

namespace ferrovane {

namespace {

bool validUtf8(std::string_view name) {
    for (size_t pos = 0, length = 0; pos < name.size(); pos += length)
        if (char32_t c; (length = FVText::decodeUTF8(name, pos, c)) == 0) return false;
    return true;
}

std::string shownByte(char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7f ? fmt::format("the control character 0x{:02x}", u) : fmt::format("\"{}\"", c);
}

// The first entry in the folder, in listing order (the walk's), other than name whose folded
// name is key; "" when there is none.
std::string firstWithFoldedName(int folderFd, const std::string& key, std::string_view name) {
    int fd = FVOpenFiles::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return "";
    DIR* dir = FVDirectoryEntries::fdopendir(fd);
    if (!dir) {
        FVOpenFiles::close(fd);
        return "";
    }
    std::string found;
    while (dirent* entry = FVDirectoryEntries::readdir(dir))
        if (name != entry->d_name && FVDestinationNames::folded(entry->d_name) == key) {
            found = entry->d_name;
            break;
        }
    FVDirectoryEntries::closedir(dir);
    return found;
}

}  // namespace

std::string FVDestinationNames::folded(std::string_view name) {
    // exFAT and FAT compare names in upper case, whatever the process' locale.
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::string out;
    out.reserve(name.size());
    for (size_t pos = 0, length = 0; pos < name.size(); pos += length) {
        char32_t c;
        if ((length = FVText::decodeUTF8(name, pos, c)) == 0) {
            out += name[pos];
            length = 1;
            continue;
        }
        if (c < 0x80) c = static_cast<char32_t>(c >= 'a' && c <= 'z' ? c - 32 : c);
        else if (unicode) c = static_cast<char32_t>(towupper_l(static_cast<wint_t>(c), unicode));
        FVText::appendUTF8(out, c);
    }
    return out;
}

std::string FVDestinationNames::refusal(size_t level, std::string_view name, int folderFd) {
    const std::string& type = profile_.fileSystemType;
    if (name.size() > profile_.maxNameLength)
        return fmt::format("its name is {} bytes long, the destination ({}) holds names of at most {}", name.size(),
                           type, profile_.maxNameLength);
    if (profile_.utf8NamesOnly && !validUtf8(name))
        return fmt::format("its name is not UTF-8, which the destination ({}) cannot store", type);
    if (size_t at = name.find_first_of(profile_.refusedNameBytes); at != std::string_view::npos)
        return fmt::format("its name holds {}, which the destination ({}) refuses in names", shownByte(name[at]), type);
    if (!profile_.caseInsensitive || level == 0) return "";
    seen_.resize(level + 1);
    const std::string key = folded(name);
    if (seen_[level].insert(std::hash<std::string>{}(key)).second) return "";
    const std::string first = firstWithFoldedName(folderFd, key, name);
    if (first.empty()) return "";  // only the hashes were alike
    return fmt::format("its name differs only in case from \"{}\" in the same folder, which the destination ({}) "
                       "cannot tell apart; only \"{}\" is backed up",
                       first, type, first);
}

std::unordered_set<std::string> FVDestinationNames::foldedNamesIn(const std::string& folder) {
    std::unordered_set<std::string> names;
    int fd = FVLongPath::open(folder, O_RDONLY | O_DIRECTORY);
    if (fd < 0) return names;
    DIR* dir = FVDirectoryEntries::fdopendir(fd);
    if (!dir) {
        FVOpenFiles::close(fd);
        return names;
    }
    while (dirent* entry = FVDirectoryEntries::readdir(dir)) names.insert(folded(entry->d_name));
    FVDirectoryEntries::closedir(dir);
    return names;
}

}  // namespace ferrovane
