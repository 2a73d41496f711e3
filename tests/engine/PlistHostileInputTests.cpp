// Property lists the configuration reader met under the fuzzer: zero bytes inside strings and
// keys, and dates beyond what the file format holds.

#include "engine/FVConfigurationFile.h"
#include "engine/FVPlist.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// {"a\0b": 1} in the binary format, the key in UTF-16: dictionary, key, integer, offset table,
// trailer.
std::string binaryWithZeroInKey() {
    std::string b = "bplist00";
    b += std::string("\xd1\x01\x02", 3) + std::string("\x63\0a\0\0\0b", 7) + std::string("\x10\x01", 2);
    b += std::string("\x08\x0b\x12", 3);
    std::string trailer(32, '\0');
    trailer[6] = 1;   // offset size
    trailer[7] = 1;   // object reference size
    trailer[15] = 3;  // objects
    trailer[31] = 20; // offset table
    return b + trailer;
}

}  // namespace

TEST(PlistHostileInput, ZeroBytesInStringsAndKeysNeverCrashTheReader) {
    std::string xml = "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>settings</key><dict>"
                      "<key>UUID</key><string>ab";
    xml += std::string("\0cd", 3) + "</string></dict></dict></plist>";
    auto read = FVConfigurationFile::parse(xml, "xml");
    ASSERT_EQ(read.status, FVConfigurationReadStatus::Ok) << read.problem;
    EXPECT_EQ(read.configuration.settings->stringValue("UUID"), "ab") << "the string ends at the zero byte";

    EXPECT_EQ(FVConfigurationFile::parse(binaryWithZeroInKey(), "binary").status,
              FVConfigurationReadStatus::NotPropertyList);
}

TEST(PlistHostileInput, DatesBeyondTheFileFormatAreWrittenAtItsEnds) {
    TempDir dir;
    PlistDict settings;
    settings.set("future", PlistDate{1e12});
    settings.set("past", PlistDate{-1e12});
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration({}, settings, dir / "conf"));
    auto read = FVConfigurationFile::read(dir / "conf");
    ASSERT_EQ(read.status, FVConfigurationReadStatus::Ok) << read.problem;
    EXPECT_GT(read.configuration.settings->find("future")->get<PlistDate>()->secondsSince1970, 3e9);
    EXPECT_LT(read.configuration.settings->find("past")->get<PlistDate>()->secondsSince1970, -1e9);
}
