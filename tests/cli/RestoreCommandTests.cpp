// Restores through the built executable after real backup runs: every version of a file, a
// removed folder and whole sources come back exactly; existing items are never overwritten
// unless replaced into the trash; no link planted in the target tree or in the destination is
// ever followed; folders made again keep their backed-up metadata.

#include "cli/DestinationFixture.h"
#include "engine/restore/FVTrash.h"
#include "engine/run/FVDate.h"
#include "fs/FVFileDescriptor.h"
#include "support/JsonQuery.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

using namespace ferrovane;
using namespace ferrovane::test;
namespace fs = std::filesystem;

namespace {

const std::string kOddName = "we\nird\xff.txt";

class RestoreCommand : public DestinationFixture {
protected:
    void SetUp() override {
        source = dir / "home/docs";
        DestinationFixture::SetUp();
        PlistDict options = defaults();
        options.set(FVOptionKey::moveChangedFiles, true);
        configure({{source, FVSourceMode::Backup}}, options);
    }

    void backup() {
        auto r = run();
        ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    }

    void writeAt(const std::string& path, std::string_view content, time_t mtime) {
        writeFile(path, content);
        setModificationTime(path, mtime);
    }

    // Three runs: a.txt in three versions, the folder old/ removed in the second and partly
    // back in the third; a user's file named almost like a temporary one.
    void threeRuns() {
        buildTree(source, {{"keep/b.txt", "b"}, {"old/c.txt", "c"}, {"old/deep/d.txt", "d"}, {kOddName, "odd"},
                           {".ferrovane-tmp-notes", "mine"}});
        writeAt(source + "/a.txt", "version one", 1'000'000);
        symlink("a.txt", (source + "/link").c_str());
        backup();
        writeAt(source + "/a.txt", "version two, longer", 2'000'000);
        fs::remove_all(source + "/old");
        backup();
        writeAt(source + "/a.txt", "v3", 3'000'000);
        makeDirs(source + "/old");
        writeFile(source + "/old/c.txt", "c again");
        backup();
    }

    struct Listed {
        std::string version, kind, location;
    };
    std::vector<Listed> versions(const std::string& path) {
        auto r = ferrovane({"versions", destination, path, "--json"});
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        std::vector<Listed> listed;
        std::regex line(R"re("version": "([^"]*)", "kind": "(\w+)".*"location": "([^"]*)")re");
        for (std::sregex_iterator it(r.out.begin(), r.out.end(), line), end; it != end; ++it)
            listed.push_back({(*it)[1], (*it)[2], (*it)[3]});
        return listed;
    }
};

}  // namespace

TEST_F(RestoreCommand, EveryVersionFolderAndSourceComesBackExactly) {
    threeRuns();

    std::vector<Listed> listed = versions(source + "/a.txt");
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_EQ(listed[0].version, "current");
    EXPECT_EQ(listed[1].kind, "changed");
    EXPECT_GT(listed[1].version, listed[2].version) << "newest first";
    EXPECT_EQ(versions(destination + "/docs/a.txt").size(), 3u) << "named by its place in the destination";
    const char* contents[] = {"v3", "version two, longer", "version one"};
    for (size_t k = 0; k < listed.size(); ++k) {
        std::string into = dir / ("out" + std::to_string(k));
        auto r = ferrovane({"restore", destination, source + "/a.txt", "--version", listed[k].version, "--to", into});
        ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
        EXPECT_NE(r.out.find("Restore finished: 1 file ("), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(", 0 conflicts moved aside, 0 errors.\n"), std::string::npos) << r.out;
        EXPECT_EQ(readFile(into + "/a.txt"), contents[k]);
        EXPECT_EQ(differences(listed[k].location, into + "/a.txt"), "");
    }

    // The removed folder, from the run that removed it; the newest version is the re-added one.
    std::vector<Listed> old = versions(source + "/old");
    ASSERT_EQ(old.size(), 2u);
    ASSERT_EQ(old[1].kind, "removed");
    auto r = ferrovane({"restore", destination, source + "/old", "--version", old[1].version, "--to", dir / "back"});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(readFile(dir / "back/old/deep/d.txt"), "d");
    EXPECT_EQ(differences(old[1].location + "/", dir / "back/old/"), "");

    // Everything, below a new root at the full original path, odd names and links included.
    r = ferrovane({"restore", destination, "--all", "--to", dir / "machine"});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    std::string restored = dir / ("machine" + source);
    EXPECT_EQ(readFile(restored + "/" + kOddName), "odd");
    EXPECT_EQ(fs::read_symlink(restored + "/link"), "a.txt");
    EXPECT_EQ(differences(destination + "/docs/", restored + "/"), "");
    // On a terminal its progress is the backup's line: files done of all, rewritten in place.
    auto shown = runProcess({"/usr/bin/script", "-qec", std::string(FERROVANE_EXECUTABLE) + " restore '" + destination +
                             "' --all --to '" + (dir / "shown") + "'", "/dev/null"},
                            environment({{"TERM", "xterm"}}));
    EXPECT_TRUE(std::regex_search(shown.out, std::regex("\rRestoring  100\\.0%  (\\d+) of \\1 files.*\033\\[K")))
        << shown.out;

    // Scripts get valid JSON, and the exact bytes of a name that is not UTF-8; search finds every
    // version the runs archived.
    auto hex = [](const std::string& bytes) {
        std::string out;
        for (unsigned char c : bytes) out += "0123456789abcdef"[c >> 4], out += "0123456789abcdef"[c & 15];
        return out;
    };
    r = ferrovane({"versions", destination, source + "/" + kOddName, "--json"});
    EXPECT_EQ(jsonQuery(r.out, "d['pathHex']"), hex(source + "/" + kOddName)) << r.err;
    r = ferrovane({"search", destination, "ird", "--json"});
    EXPECT_EQ(jsonQuery(r.out, "d['results'][0]['pathHex']"), hex(destination + "/docs/" + kOddName)) << r.err;
    r = ferrovane({"search", destination, "a.txt", "--json"});
    // In the order and with the names "versions" gives them: the current copy, then by run.
    EXPECT_EQ(jsonQuery(r.out, "[[v['run'] or 'current' for v in f['versions'] if v['current'] == (v['run'] is None)] "
                               "for f in d['results']]"),
              "[['current', '" + listed[1].version + "', '" + listed[2].version + "']]") << r.out;

    EXPECT_EQ(ferrovane({"versions", destination, source + "/never.txt"}).exitStatus, 1);
    r = ferrovane({"versions", destination, "/elsewhere/x"});
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_EQ(r.err, "ferrovane: error: /elsewhere/x is neither inside the destination nor below one of its "
                     "sources (ferrovane config " + destination + " show lists them)\n");
    EXPECT_EQ(ferrovane({"restore", destination, source + "/a.txt", "--version", "1999"}).exitStatus, 1);
    EXPECT_EQ(ferrovane({"restore", destination, "--all", "--to", destination + "/inside"}).exitStatus, 2);
    EXPECT_EQ(ferrovane({"restore", destination}).exitStatus, 2);
    EXPECT_FALSE(exists(destination + "/inside"));
}

TEST_F(RestoreCommand, ConflictsStopEverythingUnlessReplacedIntoTheTrash) {
    buildTree(source, {{"a.txt", "backed up"}, {"keep/b.txt", "b"}, {"same.txt", "backed up"}});
    // An edit of the same size within the same second is another version all the same.
    setModificationTime(source + "/same.txt", 1'000'000, 100);
    backup();
    writeFile(source + "/a.txt", "edited since, and longer");
    writeFile(source + "/same.txt", "edited up");
    setModificationTime(source + "/same.txt", 1'000'000, 200);
    fs::remove(source + "/keep/b.txt");

    for (const char* dryRun : {"--dry-run", ""}) {
        std::vector<std::string> args{"restore", destination, source};
        if (*dryRun) args.push_back(dryRun);
        auto r = ferrovane(args);
        EXPECT_EQ(r.exitStatus, 1) << r.out << r.err;
        EXPECT_NE(r.out.find("Conflict: " + source + "/a.txt"), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("Conflict: " + source + "/same.txt"), std::string::npos) << r.out;
        EXPECT_FALSE(exists(source + "/keep/b.txt")) << "nothing is written while a conflict stands";
        EXPECT_EQ(readFile(source + "/a.txt"), "edited since, and longer");
    }

    auto r = ferrovane({"restore", destination, source, "--replace"});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(readFile(source + "/a.txt"), "backed up");
    EXPECT_EQ(readFile(source + "/keep/b.txt"), "b");
    EXPECT_EQ(readFile(source + "/same.txt"), "backed up");
    std::string trash = dir / "data/Trash";
    EXPECT_EQ(readFile(trash + "/files/a.txt"), "edited since, and longer");
    std::string info = readFile(trash + "/info/a.txt.trashinfo");
    EXPECT_NE(info.find("[Trash Info]\nPath=" + FVTrash::percentEncoded(source + "/a.txt") + "\nDeletionDate="),
              std::string::npos) << info;

    // Now identical: nothing moves, nothing is copied.
    r = ferrovane({"restore", destination, source, "--replace"});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(std::distance(fs::directory_iterator(trash + "/files"), fs::directory_iterator()), 2);
}

namespace {

std::string readLong(const std::string& path) {
    FVFd file(FVLongPath::open(path, O_RDONLY));
    std::string content(256, '\0');
    ssize_t n = file.valid() ? read(file.get(), content.data(), content.size()) : -1;
    content.resize(n < 0 ? 0 : size_t(n));
    return content;
}

}  // namespace

TEST_F(RestoreCommand, FollowsNoLinkOnEitherSideAndReachesPathsLongerThanPathMax) {
    writeFile(source + "/a.txt", "secret");
    const std::string deep = makeDeepFile(source, "deep down");
    backup();

    // Target side: the first component of the original path below the new root leads elsewhere.
    std::string root = dir / "restored", outside = dir / "outside";
    makeDirs(root);
    makeDirs(outside);
    std::string first = source.substr(1, source.find('/', 1) - 1);
    ASSERT_EQ(symlink(outside.c_str(), (root + "/" + first).c_str()), 0);
    auto r = ferrovane({"restore", destination, "--all", "--to", root});
    EXPECT_EQ(r.exitStatus, 1) << r.out << r.err;
    EXPECT_TRUE(fs::is_empty(outside)) << "nothing was written through the link";

    // Destination side: an archive path that passes through a planted link is no version, and
    // nothing behind it is read.
    std::string elsewhere = dir / "elsewhere";
    makeDirs(elsewhere);
    writeFile(elsewhere + "/private.txt", "not in any backup");
    const std::string stamp = "2026-01-01 10.00.00 +0000";
    makeDirs(destination + "/__changed/" + stamp);
    ASSERT_EQ(symlink(elsewhere.c_str(), (destination + "/__changed/" + stamp + "/docs").c_str()), 0);
    EXPECT_EQ(ferrovane({"versions", destination, source + "/private.txt"}).exitStatus, 1);
    r = ferrovane({"restore", destination, source + "/private.txt", "--version", stamp, "--to", dir / "got"});
    EXPECT_EQ(r.exitStatus, 1) << r.out << r.err;
    EXPECT_FALSE(exists(dir / "got/private.txt"));

    // A file deeper than PATH_MAX comes back to its original place.
    std::string name;
    FVFd parent = FVLongPath::openParent(deep, name);
    ASSERT_EQ(unlinkat(parent.get(), name.c_str(), 0), 0);
    r = ferrovane({"versions", destination, deep});
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    r = ferrovane({"restore", destination, deep});
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(readLong(deep), "deep down");
}

TEST_F(RestoreCommand, ComesBackAsBackedUpNewestByRunOrder) {
    // Folders the restore makes again get their backed-up mode and times, not those of new ones.
    makeDirs(source + "/private/inner");
    writeFile(source + "/private/inner/a.txt", "one");
    chmod((source + "/private/inner").c_str(), 0750);
    chmod((source + "/private").c_str(), 0700);
    setModificationTime(source + "/private", 1'000'000);
    backup();
    struct stat backedUp {};
    ASSERT_EQ(stat((destination + "/docs/private").c_str(), &backedUp), 0);

    // A run whose clock was a day ahead: its stamp sorts after the runs that follow once the
    // clock is right again, unless those never take a stamp at or before it.
    writeAt(source + "/private/inner/a.txt", "two", 2'000'000);
    backup();
    std::vector<Listed> listed = versions(source + "/private/inner/a.txt");
    ASSERT_EQ(listed.size(), 2u);
    const std::string ahead = FVDate::archiveStamp(std::time(nullptr) + 86400);
    fs::rename(destination + "/__changed/" + listed[1].version, destination + "/__changed/" + ahead);
    writeAt(source + "/private/inner/a.txt", "three", 3'000'000);
    backup();
    listed = versions(source + "/private/inner/a.txt");
    ASSERT_EQ(listed.size(), 3u);
    EXPECT_EQ(readFile(listed[1].location), "two") << "the latest run's archive is the newest: " << listed[1].version;
    EXPECT_EQ(readFile(listed[2].location), "one");

    fs::remove_all(source + "/private");
    auto r = ferrovane({"restore", destination, source + "/private/inner/a.txt", "--version", listed[1].version});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(readFile(source + "/private/inner/a.txt"), "two");
    struct stat made {};
    ASSERT_EQ(stat((source + "/private").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0700u);
    EXPECT_EQ(made.st_mtim.tv_sec, backedUp.st_mtim.tv_sec);
    ASSERT_EQ(stat((source + "/private/inner").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0750u);
}
