#include "engine/record/FVRunRecords.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVVersionCatalog.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVOpenFiles.h"
#include "manifest/FVManifestReader.h"
#include "manifest/FVManifestWriter.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace ferrovane {

FVRunRecords::FVRunRecords(const std::string& destination)
    : folder_(FVMirrorLayout::archivesOf(destination).destinationPath(std::string("/") +
                                                                       FVMirrorLayout::kRunsFolder)) {}

std::string FVRunRecords::pathOf(const std::string& stamp) const {
    return folder_ + "/" + FVManifestWriter::fileName(stamp);
}

std::vector<FVRunRecord> FVRunRecords::list() const {
    std::vector<FVRunRecord> runs;
    int fd = FVOpenFiles::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return runs;
    DIR* dir = FVDirectoryEntries::fdopendir(fd);
    if (!dir) {
        FVOpenFiles::close(fd);
        return runs;
    }
    const std::string extension = FVManifestWriter::kExtension;
    while (dirent* e = FVDirectoryEntries::readdir(dir)) {
        std::string name = e->d_name;
        if (name.size() <= extension.size() || name.compare(name.size() - extension.size(), extension.size(), extension))
            continue;
        std::string stamp = name.substr(0, name.size() - extension.size());
        std::optional<std::time_t> time = FVVersionCatalog::stampTime(stamp);
        if (!time) continue;
        FVRunRecord run;
        run.stamp = std::move(stamp);
        run.time = *time;
        run.path = folder_ + "/" + name;
        run.summary = FVManifestReader::readSummary(run.path, &run.problem);
        runs.push_back(std::move(run));
    }
    FVDirectoryEntries::closedir(dir);
    std::sort(runs.begin(), runs.end(), [](const FVRunRecord& a, const FVRunRecord& b) {
        return a.time != b.time ? a.time < b.time : a.stamp < b.stamp;
    });
    return runs;
}

std::optional<FVRunRecord> FVRunRecords::newestClosed() const {
    std::vector<FVRunRecord> runs = list();
    auto newest = std::find_if(runs.rbegin(), runs.rend(), [](const FVRunRecord& run) { return run.summary.has_value(); });
    if (newest == runs.rend()) return std::nullopt;
    return std::move(*newest);
}

std::optional<std::time_t> FVRunRecords::parseMoment(const std::string& text) {
    for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        struct tm parts {};
        const char* end = strptime(text.c_str(), format, &parts);
        if (!end || *end != '\0') continue;
        bool dateOnly = std::strcmp(format, "%Y-%m-%d") == 0;
        if (dateOnly) {
            parts.tm_hour = 23;
            parts.tm_min = 59;
            parts.tm_sec = 59;
        }
        parts.tm_isdst = -1;
        std::time_t at = mktime(&parts);
        if (at == -1) return std::nullopt;
        return at;
    }
    return std::nullopt;
}

std::optional<FVRunRecord> FVRunRecords::resolve(const std::string& at, std::string* problem) const {
    std::vector<FVRunRecord> runs = list();
    for (FVRunRecord& run : runs) {
        if (run.stamp != at) continue;
        if (!run.complete()) {
            *problem = "the run " + at + " is not complete (" +
                       (run.summary ? manifestOutcomeName(run.summary->outcome) : run.problem) +
                       "): name a complete run";
            return std::nullopt;
        }
        return run;
    }
    std::optional<std::time_t> moment = parseMoment(at);
    if (!moment) moment = FVVersionCatalog::stampTime(at);
    if (!moment) {
        *problem = "\"" + at + "\" is neither a run's stamp nor a date (2026-11-20) or time (2026-11-20 14:00)";
        return std::nullopt;
    }
    for (auto it = runs.rbegin(); it != runs.rend(); ++it)
        if (it->time <= *moment && it->complete()) return *it;
    *problem = runs.empty() ? "the destination has no record of its runs yet"
                            : "no complete run at or before " + at + "; the first is " + runs.front().stamp;
    return std::nullopt;
}

}  // namespace ferrovane
