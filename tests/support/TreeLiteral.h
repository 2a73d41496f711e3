#pragma once
// A tree written from a literal: a name ending in "/" is a folder, any other a file with the
// given content; parent folders are made as needed.

#include "support/TempDir.h"

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

}  // namespace ferrovane::test
