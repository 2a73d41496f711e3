// Builds a synthetic destination for the search benchmark: a mirror of empty files, the archive
// folders of several runs and each run's manifest, written with the program's own writer.
//
//   search_destination_driver DESTINATION FILES RUNS
//
// The source /home/user/Documents is mirrored as /Documents, FILES files in folders of 1,000.
// Run 1 backs up every file; each later run r changes the 1,000 files of folder r (the old copies
// go to __changed/<stamp>) and removes folder FOLDERS - r whole (into __removed/<stamp>). Each
// manifest lists the mirror as that run left it.

#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVOptions.h"
#include "manifest/FVContentHash.h"
#include "manifest/FVManifestWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace ferrovane;

namespace {

constexpr int kPerFolder = 1000;
constexpr int64_t kTime = 1'790'000'000'000'000'000;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "search_destination_driver: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

std::string folderName(int folder) {
    char name[16];
    std::snprintf(name, sizeof name, "d%04d", folder);
    return name;
}

std::string fileName(int folder, int file) {
    char name[24];
    std::snprintf(name, sizeof name, "f%07d.txt", folder * kPerFolder + file);
    return name;
}

// Empty files named like the folder's entries, below root (made when missing).
void makeFolder(const std::string& root, int folder) {
    std::string path = root + "/" + folderName(folder);
    for (size_t slash = 1; slash != std::string::npos; slash = path.find('/', slash + 1))
        if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + path);
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + path);
    int dir = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    if (dir < 0) fail("open " + path);
    for (int file = 0; file < kPerFolder; ++file) {
        int fd = openat(dir, fileName(folder, file).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) fail("create in " + path);
        close(fd);
    }
    close(dir);
}

std::string stampOf(int run) {
    char stamp[40];
    std::snprintf(stamp, sizeof stamp, "2026-11-%02d 10.00.00 +0000", run);
    return stamp;
}

// The version of a folder's files after run r: the last run (2..r) that changed it.
int versionAfter(int folder, int run) { return folder >= 2 && folder <= run ? folder : 1; }

bool removedAfter(int folder, int folders, int run) { return folder >= folders - run && run >= 2 && folder != folders - 1; }

void writeManifest(const std::string& destination, int run, int folders) {
    FVManifestHeader header;
    header.stamp = stampOf(run);
    header.startedAtNs = kTime + run;
    header.programVersion = "bench";
    header.sources = {"/home/user/Documents"};
    header.folderPerSource = true;
    std::string error;
    auto writer = FVManifestWriter::create(destination + "/" + FVMirrorLayout::kRunsFolder, header, &error);
    if (!writer) fail(error);
    FVManifestSummary summary;
    summary.outcome = FVManifestOutcome::Complete;
    FVManifestEntry entry;
    entry.owner = 1000;
    entry.group = 1000;
    entry.sourceDevice = 2049;
    entry.type = FVManifestEntryType::Folder;
    entry.path = "/Documents";
    entry.mode = 0755;
    writer->add(entry);
    for (int folder = 0; folder < folders; ++folder) {
        if (removedAfter(folder, folders, run)) continue;
        entry.type = FVManifestEntryType::Folder;
        entry.path = "/Documents/" + folderName(folder);
        entry.mode = 0755;
        entry.hash.reset();
        entry.size = 4096;
        entry.modificationTimeNs = kTime + versionAfter(folder, run);
        entry.sourceInode = uint64_t(folder) * 3 + 1;
        entry.sourceChangeTimeNs = entry.modificationTimeNs;
        writer->add(entry);
        for (int file = 0; file < kPerFolder; ++file) {
            entry.type = FVManifestEntryType::File;
            entry.path = "/Documents/" + folderName(folder) + "/" + fileName(folder, file);
            entry.mode = 0644;
            // What a real run records: a digest that does not compress, times, an identity.
            FVContentHasher hasher;
            hasher.update(entry.path.data(), entry.path.size());
            int version = versionAfter(folder, run);
            hasher.update(&version, sizeof version);
            entry.hash = hasher.digest();
            entry.size = entry.hash->low % 100000;
            entry.modificationTimeNs = kTime + int64_t(entry.hash->high % 1'000'000'000'000'000);
            entry.sourceInode = uint64_t(folder * kPerFolder + file) * 3 + 12;
            entry.sourceChangeTimeNs = entry.modificationTimeNs + int64_t(entry.hash->high % 1000);
            writer->add(entry);
            ++summary.files;
        }
    }
    summary.entries = summary.files + 1;
    if (!writer->finish(summary, &error)) fail(error);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: search_destination_driver DESTINATION FILES RUNS\n");
        return 2;
    }
    const std::string destination = argv[1];
    const int folders = std::atoi(argv[2]) / kPerFolder;
    const int runs = std::atoi(argv[3]);
    if (folders < 2 * runs + 2 || runs < 1) {
        std::fprintf(stderr, "search_destination_driver: too few files for that many runs\n");
        return 2;
    }
    if (mkdir(destination.c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + destination);
    PlistDict options;
    FVConfigurationFile::applyDefaultOptions(options);
    if (!FVConfigurationFile::writeSettingsForSourceConfiguration(
            {FVSourceItem::make("/home/user/Documents", FVSourceMode::Backup)}, options,
            FVConfigurationFile::formattedPath(destination)))
        fail("cannot write the configuration");
    for (int folder = 0; folder < folders; ++folder)
        if (!removedAfter(folder, folders, runs)) makeFolder(destination + "/Documents", folder);
    for (int run = 1; run <= runs; ++run) {
        std::string stamp = stampOf(run);
        if (run >= 2) {
            makeFolder(destination + "/__changed/" + stamp + "/Documents", run);
            makeFolder(destination + "/__removed/" + stamp + "/Documents", folders - run);
        }
        writeManifest(destination, run, folders);
    }
    return 0;
}
