#pragma once
// Test fixtures on real file systems: a temporary folder removed afterwards, and small helpers
// to build and read files.

#include <string>
#include <string_view>

namespace ferrovane::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

private:
    std::string path_;
};

void writeFile(const std::string& path, std::string_view content);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
void makeDirs(const std::string& path);
// Sets the access and modification time of path itself (a link is not followed); false on failure.
bool setModificationTime(const std::string& path, long seconds, long nanoseconds = 0);
// A file at the bottom of 80 folders of 60-byte names below base, a path longer than PATH_MAX,
// made one component at a time; returns the file's path.
std::string makeDeepFile(const std::string& base, std::string_view content);

}  // namespace ferrovane::test
