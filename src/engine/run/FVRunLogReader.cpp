#include "engine/run/FVRunLogReader.h"

#include "fs/FVFileData.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace ferrovane {

namespace {

// "YYYY-MM-DD HH:MM:SS: " before every line the log writes.
constexpr size_t kStampLength = 19;

bool hasStamp(std::string_view line) {
    if (line.size() < kStampLength + 2 || line.compare(kStampLength, 2, ": ") != 0) return false;
    for (size_t i = 0; i < kStampLength; ++i) {
        const char c = line[i];
        const bool digit = c >= '0' && c <= '9';
        if (i == 4 || i == 7 ? c != '-' : i == 10 ? c != ' ' : i == 13 || i == 16 ? c != ':' : !digit) return false;
    }
    return true;
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// The text after marker, up to the last " (" when cut is set: "… starting sync to: /b (ext4)".
std::optional<std::string> after(std::string_view text, std::string_view marker, bool cut) {
    const size_t at = text.find(marker);
    if (!startsWith(text, "Ferrovane ") || at == std::string_view::npos) return std::nullopt;
    std::string_view rest = text.substr(at + marker.size());
    if (cut && rest.rfind(" (") != std::string_view::npos) rest = rest.substr(0, rest.rfind(" ("));
    return std::string(rest);
}

// The number before suffix at the end of text: "(12 items changed)." gives 12.
uint64_t numberBefore(std::string_view text, std::string_view suffix) {
    const size_t end = text.rfind(suffix);
    if (end == std::string_view::npos) return 0;
    size_t start = end;
    while (start > 0 && text[start - 1] >= '0' && text[start - 1] <= '9') --start;
    uint64_t value = 0;
    for (size_t i = start; i < end; ++i) value = value * 10 + uint64_t(text[i] - '0');
    return value;
}

class RunBuilder {
public:
    void line(std::string_view stamp, std::string_view text) {
        if (text.empty()) return;
        if (auto to = after(text, " starting sync to: ", true)) return open(FVLoggedRun::Kind::Backup, stamp, *to, text);
        if (auto to = after(text, " cannot sync to: ", false)) return open(FVLoggedRun::Kind::Backup, stamp, *to, text);
        if (auto from = after(text, " starting restore from: ", false))
            return open(FVLoggedRun::Kind::Restore, stamp, *from, text);
        if (!current_) return;
        add(stamp, text);
        using Outcome = FVLoggedRun::Outcome;
        if (startsWith(text, "Source finished analysing: ")) current_->changedItems += numberBefore(text, " items changed).");
        else if (startsWith(text, "Sync finished")) close(Outcome::Finished);
        else if (startsWith(text, "Sync cancelled: nothing was changed")) close(Outcome::Refused);
        else if (startsWith(text, "Sync stopped before copying: not enough room")) close(Outcome::NoRoom);
        else if (startsWith(text, "Sync cancelled")) close(Outcome::Stopped);
        else if (startsWith(text, "Restore finished: ") || startsWith(text, "Restore cancelled: ")) {
            current_->changedItems = numberBefore(text.substr(0, text.find(" files (")), "");
            close(text[8] == 'f' ? Outcome::Finished : Outcome::Stopped);
        }
    }

    // A line of a message that spans several.
    void continuation(std::string_view text) {
        if (current_ && !text.empty()) add({}, text);
    }

    std::vector<FVLoggedRun> finish() {
        if (current_) close(FVLoggedRun::Outcome::Unfinished);
        return std::move(runs_);
    }

private:
    void open(FVLoggedRun::Kind kind, std::string_view stamp, std::string destination, std::string_view text) {
        if (current_) close(FVLoggedRun::Outcome::Unfinished);
        current_ = FVLoggedRun{};
        current_->kind = kind;
        current_->time = std::string(stamp);
        current_->destination = std::move(destination);
        add(stamp, text);
    }

    void add(std::string_view stamp, std::string_view text) {
        std::string shown = stamp.empty() ? std::string(text) : std::string(stamp.substr(11)) + ' ' + std::string(text);
        if (startsWith(text, "ERROR: ") || text == "Destination volume unmounted unexpectedly!") errors_.push_back(std::move(shown));
        else others_.push_back(std::move(shown));
    }

    void close(FVLoggedRun::Outcome outcome) {
        current_->outcome = outcome;
        current_->errorCount = errors_.size();
        current_->lines = std::move(errors_);
        current_->lines.insert(current_->lines.end(), others_.begin(), others_.end());
        errors_.clear();
        others_.clear();
        runs_.push_back(std::move(*current_));
        current_.reset();
    }

    std::optional<FVLoggedRun> current_;
    std::vector<std::string> errors_, others_;
    std::vector<FVLoggedRun> runs_;
};

}  // namespace

std::vector<FVLoggedRun> FVRunLogReader::parse(std::string_view text) {
    RunBuilder builder;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (hasStamp(line)) builder.line(line.substr(0, kStampLength), line.substr(kStampLength + 2));
        else builder.continuation(line);
    }
    return builder.finish();
}

std::vector<FVLoggedRun> FVRunLogReader::recentRuns(const std::string& path, const std::string& destination, size_t limit,
                                                    std::string* problem, size_t tailBytes) {
    FVFd file(FVOpenFiles::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        if (errno != ENOENT) *problem = path + ": " + std::strerror(errno);
        return {};
    }
    struct stat st {};
    if (FVFileStatus::fstat(file.get(), &st) != 0) {
        *problem = path + ": " + std::strerror(errno);
        return {};
    }
    const off_t start = st.st_size > off_t(tailBytes) ? st.st_size - off_t(tailBytes) : 0;
    std::string text(size_t(st.st_size - start), '\0');
    size_t got = 0;
    while (got < text.size()) {
        const ssize_t n = FVFileData::pread(file.get(), text.data() + got, text.size() - got, start + off_t(got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *problem = path + ": " + std::strerror(errno);
            return {};
        }
        if (n == 0) break;  // shortened meanwhile
        got += size_t(n);
    }
    text.resize(got);
    // Read from the middle of a line: that line is dropped.
    if (start > 0) text.erase(0, std::min(text.size(), text.find('\n') + 1));
    std::vector<FVLoggedRun> runs;
    std::vector<FVLoggedRun> all = parse(text);
    for (auto run = all.rbegin(); run != all.rend() && runs.size() < limit; ++run)
        if (run->destination == destination) runs.push_back(std::move(*run));
    return runs;
}

}  // namespace ferrovane
