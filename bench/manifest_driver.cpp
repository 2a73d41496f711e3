// Writes a complete run's record of N synthetic files into <destination>/__runs, for measuring
// what reading a record of that size costs (memory, time) without a backup of N real files.
//
//   manifest_driver DESTINATION STAMP N

#include "engine/record/FVRunRecords.h"
#include "manifest/FVManifestWriter.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace ferrovane;

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: manifest_driver DESTINATION STAMP N\n");
        return 2;
    }
    const std::string destination = argv[1];
    const uint64_t count = std::strtoull(argv[3], nullptr, 10);
    std::string problem;
    FVManifestHeader header{0, argv[2], 1'700'000'000'000'000'000, "bench", {"/home/user/Documents"}, true};
    auto writer = FVManifestWriter::create(FVRunRecords(destination).folder(), header, &problem);
    if (!writer) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 1;
    }
    FVManifestSummary summary;
    summary.outcome = FVManifestOutcome::Complete;
    FVManifestEntry folder;
    folder.type = FVManifestEntryType::Folder;
    folder.mode = 0755;
    auto addFolder = [&](std::string path) {
        folder.path = std::move(path);
        writer->add(folder);
        ++summary.entries;
    };
    addFolder("/Documents");
    FVManifestEntry entry;
    entry.mode = 0644;
    for (uint64_t i = 0; i < count; ++i) {
        // 1,000 files a folder, as a large home folder has them.
        if (i % 1000 == 0) addFolder(fmt::format("/Documents/folder {}", i / 1000));
        entry.path = fmt::format("/Documents/folder {}/file {}.txt", i / 1000, i);
        entry.size = 1000 + i % 5000;
        entry.modificationTimeNs = 1'700'000'000'000'000'000 + static_cast<int64_t>(i);
        FVContentHasher hasher;
        hasher.update(&i, sizeof i);
        entry.hash = hasher.digest();
        writer->add(entry);
        ++summary.entries;
        ++summary.files;
        summary.bytes += entry.size;
    }
    if (!writer->finish(summary, &problem)) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 1;
    }
    return 0;
}
