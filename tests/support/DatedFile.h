#pragma once
// A file written with its parent folders and modified at a fixed UTC time, for tests that sort
// or print versions by their modification time.

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace ferrovane::test {

// utcTime is "YYYY-MM-DD HH:MM" or "YYYY-MM-DD HH:MM:SS"; returns path.
inline std::string writeDatedFile(const std::string& path, std::string_view content, const char* utcTime) {
    makeDirs(path.substr(0, path.rfind('/')));
    writeFile(path, content);
    std::tm utc {};
    if (!strptime(utcTime, "%Y-%m-%d %H:%M:%S", &utc)) {
        utc = {};
        EXPECT_TRUE(strptime(utcTime, "%Y-%m-%d %H:%M", &utc)) << utcTime;
    }
    EXPECT_TRUE(setModificationTime(path, timegm(&utc))) << path;
    return path;
}

}  // namespace ferrovane::test
