#include "cli/FVDestinationArgument.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "fs/FVPathResolution.h"
#include "fs/FVText.h"
#include "search/FVSearchText.h"

namespace ferrovane::FVDestinationArgument {

std::optional<int> refusal(const std::string& argument) {
    if (!argument.empty() && argument.front() == '/') return std::nullopt;
    if (argument.empty()) {
        FVOutput::error("the destination must be an absolute path, not an empty one");
        return FVExitStatus::kUsage;
    }
    // The path the user may have meant is only a hint: a working folder that is gone gives none.
    std::string meant = FVPathResolution::absolute(argument.c_str());
    meant = meant.front() == '/' ? FVText::standardizedPath(meant) : "";
    if (meant.empty())
        FVOutput::error("the destination must be an absolute path: {}", FVSearchText::printable(argument));
    else
        FVOutput::error("the destination must be an absolute path: {} (did you mean {}?)",
                        FVSearchText::printable(argument), FVSearchText::printable(meant));
    return FVExitStatus::kUsage;
}

}  // namespace ferrovane::FVDestinationArgument
