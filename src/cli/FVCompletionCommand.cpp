#include "cli/FVCompletionCommand.h"

#include "cli/FVArchiveRuns.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVOptions.h"
#include "engine/record/FVRunRecords.h"

#include <algorithm>

namespace ferrovane::FVCompletionCommand {

namespace {

// A word with a line break cannot be offered one a line; no shell would complete it either.
void offer(const std::string& word) {
    if (!word.empty() && word.find('\n') == std::string::npos) FVOutput::print(stdout, "{}\n", word);
}

void sources(const std::string& destination) {
    for (const std::string& path :
         {FVConfigurationFile::formattedPath(destination), FVConfigurationFile::legacyPath(destination)}) {
        FVConfigurationReadResult result = FVConfigurationFile::read(path);
        if (result.status == FVConfigurationReadStatus::Unavailable) continue;
        for (const FVSourceItemPtr& item : result.configuration.sources) offer(item->sourcePath());
        return;
    }
}

void runs(const std::string& destination) {
    std::vector<FVRunRecord> records = FVRunRecords(destination).list();
    std::reverse(records.begin(), records.end());
    for (const FVRunRecord& record : records) offer(record.stamp);
}

}  // namespace

int main(const std::vector<std::string>& arguments) {
    const std::string what = arguments.empty() ? "" : arguments[0];
    if (what == "options") {
        for (const FVOptionRule& rule : FVOptionTable::rules())
            if (rule.settable) offer(rule.key);
    } else if (arguments.size() == 2 && !arguments[1].empty()) {
        if (what == "sources") sources(arguments[1]);
        if (what == "runs") runs(arguments[1]);
        if (what == "versions") {
            const FVArchiveRuns archives = FVArchiveRuns::read(arguments[1]);
            for (const FVArchiveRun& run : archives.runs()) offer(run.stamp);
        }
    }
    return FVExitStatus::kOk;
}

}  // namespace ferrovane::FVCompletionCommand
