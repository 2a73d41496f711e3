// Property lists the configuration reader met under the fuzzer or from outside: zero bytes
// inside strings and keys, dates beyond what the file format holds, nesting deep enough to
// overflow a recursive parser, and paths that are not text.

#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVPlist.h"
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

std::string bigEndian(uint64_t value, size_t size) {
    std::string out(size, '\0');
    for (size_t i = size; i-- > 0; value >>= 8) out[i] = static_cast<char>(value & 0xff);
    return out;
}

// A binary list of count arrays, array i holding refs references to array i + 1 (the last one
// empty); with loop, the last one holds itself instead.
std::string binaryArrays(uint64_t count, int refs, bool loop = false) {
    std::string body = "bplist00";
    std::string offsets;
    for (uint64_t i = 0; i < count; ++i) {
        offsets += bigEndian(body.size(), 4);
        const bool last = i + 1 == count;
        const int n = last && !loop ? 0 : refs;
        body += static_cast<char>(0xA0 | n);
        for (int r = 0; r < n; ++r) body += bigEndian(last ? i : i + 1, 4);
    }
    const uint64_t table = body.size();
    return body + offsets + std::string(6, '\0') + "\x04\x04" + bigEndian(count, 8) + bigEndian(0, 8) +
           bigEndian(table, 8);
}

std::string arrays(size_t depth, const std::string& inside = "") {
    std::string open, close;
    for (size_t i = 0; i < depth; ++i) {
        open += "<array><!-- a comment --><array/>";
        close += "</array>";
    }
    return open + inside + close;
}

std::string xmlArrays(size_t depth, const std::string& inside = "") {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\">" + arrays(depth, inside) + "</plist>";
}

}  // namespace

TEST(PlistHostileInput, NestingBeyondTheLimitIsRefusedBeforeAnyRecursiveParse) {
    // Also what a lenient reader could take for tags: openings inside character data, and
    // openings after more closings than there were.
    for (const std::string& deep : {xmlArrays(200000), binaryArrays(200000, 1), xmlArrays(65),
                                    xmlArrays(1, std::string(100, '<') + "<![CDATA[" + arrays(65) + "]]>"),
                                    xmlArrays(0, "</array></array>" + arrays(65)),
                                    binaryArrays(65, 1), binaryArrays(3, 1, true)}) {
        auto read = FVConfigurationFile::parse(deep, "deep");
        EXPECT_EQ(read.status, FVConfigurationReadStatus::NotPropertyList);
        EXPECT_NE(read.problem.find("nest more than 64 levels deep"), std::string::npos) << read.problem;
    }
    // 60 levels of two references each would expand to 2^60 values in libplist.
    EXPECT_EQ(parsePlist(binaryArrays(60, 2)).error, "its shared objects expand to more than 2097152 values");
    for (const std::string& fine : {xmlArrays(64, "<string>&lt;array&gt;</string><dict/>"), binaryArrays(64, 1),
                                    binaryArrays(12, 2)})
        EXPECT_TRUE(parsePlist(fine).value.has_value()) << parsePlist(fine).error;
}

TEST(PlistHostileInput, PathsThatAreNotTextReachAnyReaderAndComeBackExact) {
    TempDir dir;
    const std::string path = dir / "conf";
    const std::string source = "/data/src\n\x1b[2J\xff\xfe\r";
    auto item = FVSourceItem::make(source, FVSourceMode::Backup);
    item->setValue("sourcePathBytes", 1200);  // a key of that name already there gives way
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration({item}, PlistDict(), path));
    // Another reader parses it and finds the bytes: the fault suite's hostile part.
    std::string written = readFile(path);
    auto read = FVConfigurationFile::read(path);
    ASSERT_EQ(read.status, FVConfigurationReadStatus::Ok) << read.problem;
    EXPECT_EQ(read.configuration.sources.at(0)->sourcePath(), source);
    EXPECT_FALSE(read.configuration.sources[0]->value("sourcePathBytes")) << "the bytes are the path, not a key of it";

    // Text edited by another program no longer matches the bytes: the edit counts.
    const size_t at = written.find("/data/src");
    written.replace(at, written.find("</string>", at) - at, "/data/edited");
    writeFile(path, written);
    read = FVConfigurationFile::read(path);
    ASSERT_EQ(read.status, FVConfigurationReadStatus::Ok) << read.problem;
    EXPECT_EQ(read.configuration.sources.at(0)->sourcePath(), "/data/edited");
}

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
