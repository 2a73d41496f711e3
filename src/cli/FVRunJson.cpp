#include "cli/FVRunJson.h"

#include "cli/FVJsonText.h"

#include <fmt/format.h>

#include <ctime>

namespace ferrovane::FVRunJson {

namespace {

std::string stringArray(const std::vector<std::string>& texts) {
    std::string out = "[";
    for (size_t i = 0; i < texts.size(); ++i) out += (i ? ", " : "") + FVJsonText::quoted(texts[i]);
    return out + "]";
}

// The log's level prefix says nothing inside a list of errors.
std::string_view withoutLevel(std::string_view message) {
    for (std::string_view level : {"ERROR: ", "Error: "})
        if (message.starts_with(level)) return message.substr(level.size());
    return message;
}

std::string errorObjects(const std::vector<std::string>& errors) {
    std::string out = "[";
    for (size_t i = 0; i < errors.size(); ++i)
        out += fmt::format("{}{{\"message\": {}}}", i ? ", " : "", FVJsonText::quoted(withoutLevel(errors[i])));
    return out + "]";
}

}  // namespace

std::string summary(const std::string& destination, const FVBackupSession& session, const FVRunSummary& run,
                    std::string_view outcome) {
    return fmt::format(
        "{{{}, \"type\": \"summary\", {}, \"stamp\": {}, \"started\": {}, \"finished\": {}, \"outcome\": \"{}\", "
        "\"dryRun\": {}, \"checked\": {}, \"copied\": {}, \"bytesCopied\": {}, \"archived\": {}, \"deleted\": {}, "
        "\"seconds\": {:.1f}, \"errors\": {}, \"warnings\": {}, \"notes\": {}, \"line\": {}}}",
        FVJsonText::formatVersionField(), FVJsonText::pathFields("destination", destination),
        session.stamp().empty() ? "null" : FVJsonText::quoted(session.stamp()),
        FVJsonText::time(static_cast<std::time_t>(session.startedAt())),
        FVJsonText::time(static_cast<std::time_t>(session.finishedAt())), outcome, run.dryRun, run.totals.checked,
        run.totals.copied, run.totals.bytesCopied, run.totals.archived, run.totals.deleted, run.seconds,
        errorObjects(session.errorMessages()), stringArray(session.warnings()), stringArray(session.notes()),
        FVJsonText::quoted(run.line()));
}

}  // namespace ferrovane::FVRunJson
