#include "support/RecordedRun.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVRunRecords.h"
#include "fs/FVDirectoryWalker.h"
#include "manifest/FVManifestWriter.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::test {

void recordRun(const std::string& destination, const std::string& stamp, const std::vector<std::string>& sources,
               FVManifestOutcome outcome, const std::vector<FVManifestEntry>& extra) {
    std::string problem;
    auto writer = FVManifestWriter::create(FVRunRecords(destination).folder(),
                                           {0, stamp, 1'700'000'000'000'000'000, "test", sources, true}, &problem);
    ASSERT_TRUE(writer) << problem;
    FVManifestSummary summary;
    summary.outcome = outcome;
    std::vector<char> buffer(1 << 16);
    FVDirectoryWalker walker(destination);
    while (const FVDirectoryWalker::Entry* item = walker.next()) {
        if (item->level == 0) continue;
        if (item->level == 1 && FVMirrorLayout::isReservedName(item->name())) {
            walker.skipChildren();
            continue;
        }
        FVManifestEntry entry;
        entry.path = std::string(item->relativePath());
        entry.type = S_ISREG(item->st.st_mode)   ? FVManifestEntryType::File
                     : S_ISDIR(item->st.st_mode) ? FVManifestEntryType::Folder
                     : S_ISLNK(item->st.st_mode) ? FVManifestEntryType::Link
                                                 : FVManifestEntryType::Other;
        entry.size = static_cast<uint64_t>(item->st.st_size);
        entry.mode = item->st.st_mode & 07777;
        entry.owner = item->st.st_uid;
        entry.group = item->st.st_gid;
        entry.modificationTimeNs = int64_t(item->st.st_mtim.tv_sec) * 1'000'000'000 + item->st.st_mtim.tv_nsec;
        if (entry.type == FVManifestEntryType::File) {
            int fd = open(item->path.c_str(), O_RDONLY | O_CLOEXEC);
            ASSERT_GE(fd, 0) << item->path;
            entry.hash = FVContentHasher::ofDescriptor(fd, buffer.data(), buffer.size());
            close(fd);
            ++summary.files;
            summary.bytes += entry.size;
        }
        ASSERT_TRUE(writer->add(entry));
        ++summary.entries;
    }
    for (const FVManifestEntry& entry : extra) {
        ASSERT_TRUE(writer->add(entry));
        ++summary.entries;
    }
    ASSERT_TRUE(writer->finish(summary, &problem)) << problem;
}

}  // namespace ferrovane::test
