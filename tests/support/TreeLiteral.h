#pragma once
// A tree written from a literal: a name ending in "/" is a folder, any other a file with the
// given content; parent folders are made as needed. And a digest of a whole tree, to check that
// something left it exactly as it was.

#include "engine/analysis/FVAttributeSignature.h"
#include "support/TempDir.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace ferrovane::test {

inline void buildTree(const std::string& root, const std::vector<std::pair<std::string, std::string>>& entries) {
    for (const auto& [name, content] : entries) {
        std::string path = root + "/" + name;
        makeDirs(path.substr(0, path.rfind('/')));
        if (!name.ends_with('/')) writeFile(path, content);
    }
}

// Everything of a tree a run could change: names, types, modes, owners, times, contents, link
// targets and extended attributes, the root folder included; one sorted line per entry.
inline std::string treeDigest(const std::string& root) {
    std::vector<std::string> lines;
    auto describe = [&](const std::string& path) {
        struct stat st {};
        lstat(path.c_str(), &st);
        std::ostringstream out;
        out << path.substr(root.size()) << ' ' << st.st_mode << ' ' << st.st_uid << ' ' << st.st_mtim.tv_sec << '.'
            << st.st_mtim.tv_nsec << ' ' << (S_ISREG(st.st_mode) ? readFile(path) : "");
        if (S_ISLNK(st.st_mode)) out << std::filesystem::read_symlink(path).string();
        out << ' ' << FVAttributeSignature::xattrNameAndDataStringForFileAtPath(path);
        lines.push_back(out.str());
    };
    describe(root);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) describe(entry.path().string());
    std::sort(lines.begin(), lines.end());
    std::string digest;
    for (const std::string& line : lines) digest += line + "\n";
    return digest;
}

}  // namespace ferrovane::test
