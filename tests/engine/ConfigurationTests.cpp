// The destination configuration file: reading every property-list form, writing back without
// loss, the legacy rename and malformed input.

#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVOptions.h"
#include "engine/run/FVStrings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

const char* kSample = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>settings</key>
  <dict>
    <key>maxThreads</key><integer>5</integer>
    <key>moveDeletedFiles</key><true/>
    <key>someFutureOption</key><array><string>x</string><real>1.5</real></array>
    <key>blob</key><data>AAECAw==</data>
    <key>negative</key><integer>-7</integer>
  </dict>
  <key>sources</key>
  <array>
    <dict>
      <key>sourcePath</key><string>/home/jos&#233;/Documents</string>
      <key>enabled</key><integer>1</integer>
      <key>lastBackupDate</key><date>2024-03-01T10:20:30Z</date>
      <key>totalBytesCopied</key><integer>123456789012</integer>
      <key>sizeInMB</key><real>12.5</real>
      <key>custom</key><string>kept</string>
    </dict>
  </array>
</dict>
</plist>
)";

}  // namespace

TEST(ConfigurationFile, ReadsXmlAndBinaryAlikeAndARoundTripKeepsEveryTypeAndUnknownKeysButNoStoredSize) {
    TempDir dir;
    std::string path = FVConfigurationFile::formattedPath(dir.path());
    writeFile(path, kSample);

    auto first = FVConfigurationFile::read(path);
    ASSERT_EQ(first.status, FVConfigurationReadStatus::Ok) << first.problem;
    ASSERT_EQ(first.configuration.sources.size(), 1u);
    FVSourceItemPtr item = first.configuration.sources[0];
    EXPECT_EQ(item->sourcePath(), "/home/jos\xC3\xA9/Documents");
    EXPECT_EQ(first.configuration.settings->integerValue("negative"), -7);
    EXPECT_EQ(item->integerValue("totalBytesCopied"), 123456789012);

    plist_t root = nullptr;
    plist_from_xml(kSample, static_cast<uint32_t>(strlen(kSample)), &root);
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    auto binary = FVConfigurationFile::parse(std::string(bin, length), "binary");
    free(bin);
    plist_free(root);
    ASSERT_EQ(binary.status, FVConfigurationReadStatus::Ok) << binary.problem;
    EXPECT_EQ(*binary.configuration.settings, *first.configuration.settings);
    EXPECT_EQ(binary.configuration.sources.at(0)->snapshot(), item->snapshot());

    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(
        first.configuration.sources, *first.configuration.settings, path));
    auto second = FVConfigurationFile::read(path);
    ASSERT_EQ(second.status, FVConfigurationReadStatus::Ok);
    EXPECT_EQ(*second.configuration.settings, *first.configuration.settings);
    PlistDict written = second.configuration.sources[0]->snapshot();
    EXPECT_EQ(written, item->snapshot());
    EXPECT_FALSE(written.contains("sizeInMB")) << "a stored size is dropped, from the live item too";
    ASSERT_TRUE(written.find("lastBackupDate")->is<PlistDate>());
    EXPECT_DOUBLE_EQ(written.find("lastBackupDate")->get<PlistDate>()->secondsSince1970, 1709288430.0);
    EXPECT_TRUE(second.configuration.settings->find("moveDeletedFiles")->is<bool>());
    EXPECT_TRUE(second.configuration.settings->find("blob")->is<PlistData>());
    EXPECT_EQ(readFile(path).find("<?xml"), 0u) << "written as XML";
    writeFile(path, kSample);
    ASSERT_TRUE(FVConfigurationFile::writeRunResults({item}, path));
    EXPECT_EQ(readFile(path).find("sizeInMB"), std::string::npos) << "the write-back after a run drops it too";
}

TEST(ConfigurationFile, DefaultsNeverOverrideStoredValuesAndOnlyNewDestinationsKeepVersions) {
    PlistDict options;
    options.set("maxThreads", int64_t{5});
    FVConfigurationFile::applyDefaultOptions(options);
    EXPECT_EQ(options.integerValue("maxThreads"), 5);
    // An existing file keeps its meaning: no archiving of changed files, no retention, no
    // free-space rule appear by themselves.
    FVOptions existing = FVOptionTable::read(options).options;
    EXPECT_FALSE(existing.moveChangedFiles || existing.retentionEnabled || existing.keepFreeSpace ||
                 existing.purgeOldestForSpace);

    FVOptions fresh = FVOptionTable::read(*FVConfigurationFile::newDestinationOptions()).options;
    EXPECT_TRUE(fresh.moveChangedFiles && fresh.moveDeletedFiles && fresh.retentionEnabled && fresh.keepFreeSpace &&
                fresh.purgeOldestForSpace);
    EXPECT_FALSE(fresh.backUpWhenConnected || fresh.automationEnabled);
    EXPECT_EQ(fresh.overdueDays, 7);

    // Every text the options sheet shows for an option is in the string table.
    for (const FVOptionRule& rule : FVOptionTable::rules())
        for (const char* text : {rule.label, rule.unit})
            EXPECT_TRUE(!text || FVStrings::contains(text)) << rule.key << ": " << text;
    FVOptionTable::store(options, &FVOptions::automationEnabled, true);
    EXPECT_TRUE(options.find("automationEnabled")->is<bool>());
}

// The legacy file is renamed only when no current file exists.
TEST(ConfigurationFile, TheLegacyFileIsRenamedOnce) {
    TempDir dir;
    writeFile(dir / "ferrovane.settings", kSample);
    EXPECT_TRUE(FVConfigurationFile::convertLegacyFile(dir.path()));
    EXPECT_FALSE(exists(dir / "ferrovane.settings"));
    EXPECT_EQ(readFile(dir / ".ferrovane.conf"), kSample);

    writeFile(dir / "ferrovane.settings", "old");
    EXPECT_FALSE(FVConfigurationFile::convertLegacyFile(dir.path()));
    EXPECT_EQ(readFile(dir / "ferrovane.settings"), "old");
    EXPECT_EQ(readFile(dir / ".ferrovane.conf"), kSample);
}

TEST(ConfigurationFile, MalformedInputIsClassifiedWithAReason) {
    TempDir dir;
    std::string path = dir / ".ferrovane.conf";
    auto statusOf = [&](std::string_view content) {
        writeFile(path, content);
        return FVConfigurationFile::read(path);
    };
    auto wrap = [](const std::string& body) {
        return "<?xml version=\"1.0\"?><plist version=\"1.0\">" + body + "</plist>";
    };

    EXPECT_EQ(FVConfigurationFile::read(dir / "missing").status, FVConfigurationReadStatus::Unavailable);
    EXPECT_EQ(statusOf("").status, FVConfigurationReadStatus::NotPropertyList);
    EXPECT_EQ(statusOf("hello, I am not a plist").status, FVConfigurationReadStatus::NotPropertyList);
    EXPECT_EQ(statusOf(wrap("<array/>")).status, FVConfigurationReadStatus::NotPropertyList);
    auto r = statusOf(std::string(FVConfigurationFile::maximumFileSize + 1, ' '));
    EXPECT_EQ(r.status, FVConfigurationReadStatus::NotPropertyList);
    EXPECT_NE(r.problem.find("larger"), std::string::npos) << "refused without parsing";

    r = statusOf(wrap("<dict><key>sources</key><string>x</string></dict>"));
    EXPECT_EQ(r.status, FVConfigurationReadStatus::Malformed);
    EXPECT_NE(r.problem.find("not an array"), std::string::npos);
    r = statusOf(wrap("<dict><key>settings</key><array/></dict>"));
    EXPECT_EQ(r.status, FVConfigurationReadStatus::Malformed);
}

TEST(ConfigurationFile, FailedWriteLeavesTheOldFileWhole) {
    TempDir dir;
    std::string path = dir / ".ferrovane.conf";
    writeFile(path, kSample);
    chmod(dir.path().c_str(), 0555);
    std::string error;
    bool ok = FVConfigurationFile::writeSettingsForSourceConfiguration({}, PlistDict(), path, &error);
    chmod(dir.path().c_str(), 0755);
    if (geteuid() == 0) GTEST_SKIP() << "the superuser writes into read-only folders";
    EXPECT_FALSE(ok);
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(readFile(path), kSample);
}

TEST(ConfigurationFile, AWriterRemovesTheTemporaryFilesOfWritersThatWereKilled) {
    TempDir dir;
    std::string path = dir / ".ferrovane.conf";
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    waitpid(dead, nullptr, 0);
    std::string abandoned = path + "." + std::to_string(dead) + ".Ab12Cd";
    std::string inProgress = path + "." + std::to_string(getpid()) + ".Xy34Zw";
    writeFile(abandoned, "half");
    writeFile(inProgress, "being written");
    writeFile(dir / "unrelated.conf.1.abcdef", "kept");
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration({}, PlistDict(), path));
    EXPECT_FALSE(exists(abandoned));
    EXPECT_TRUE(exists(inProgress)) << "a living writer's file is left alone";
    EXPECT_TRUE(exists(dir / "unrelated.conf.1.abcdef"));
}
