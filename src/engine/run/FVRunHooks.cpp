#include "engine/run/FVRunHooks.h"

#include "engine/run/FVLog.h"

#include <fmt/format.h>

namespace ferrovane {

namespace {

// A command or a path in a message: one line, whatever it holds.
std::string printable(std::string_view text) {
    std::string out;
    for (unsigned char c : text) out += c < 0x20 || c == 0x7F ? '?' : static_cast<char>(c);
    return out;
}

// A destination path as one shell word, for the command the user can copy.
std::string shellWord(std::string_view text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

FVHookProcess::Environment runEnvironment(const FVHookRun& run) {
    return {{"FERROVANE_DESTINATION", run.destination},
            {"FERROVANE_RUN_STAMP", run.stamp},
            {"FERROVANE_TRIGGER", run.trigger},
            {"FERROVANE_DRY_RUN", run.dryRun ? "1" : "0"}};
}

}  // namespace

FVRunHooks::FVRunHooks(const FVOptions& options, FVHookApprovals approvals, FVHookProcess::LineHandler echo)
    : options_(options), approvals_(std::move(approvals)), echo_(std::move(echo)) {}

std::optional<std::string> FVRunHooks::runHook(FVHookKind kind, const std::string& command,
                                               FVHookProcess::Environment environment,
                                               const FVHookProcess::StopRequest& stop, const std::string& destination) {
    const char* name = hookKindName(kind);
    FVLog& log = FVLog::currentLog();
    if (!approvals_.isApproved(options_.UUID, kind, command)) {
        warnings_.push_back(fmt::format(
            "the {}-hook in the destination's configuration was not set or approved by this user on this machine, "
            "so it was not run: {}. To approve it: ferrovane config {} hook {} --approve",
            name, printable(command), printable(shellWord(destination)), name));
        log.addLogLine("WARNING: " + warnings_.back());
        return std::nullopt;
    }
    log.addLogLine(fmt::format("Running the {}-hook: {}", name, command));
    const std::string prefix = std::string(name) + "-hook: ";
    FVHookProcessResult result = FVHookProcess::run(
        command, environment, std::chrono::seconds(options_.hookTimeoutSeconds),
        [&](std::string_view line) {
            log.addLogLine(prefix + std::string(line));
            if (echo_) echo_(line);
        },
        stop);
    if (result.succeeded() || result.stopped) return std::nullopt;
    std::string why;
    if (!result.started) why = result.error;
    else if (result.timedOut) why = fmt::format("ran out of time after {} second{}", options_.hookTimeoutSeconds,
                                                        options_.hookTimeoutSeconds == 1 ? "" : "s");
    else if (result.signal) why = fmt::format("ended by signal {}", result.signal);
    else why = fmt::format("exit {}", result.exitStatus);
    return fmt::format("{}-hook failed ({}): {}", name, why, printable(command));
}

std::optional<std::string> FVRunHooks::runBefore(const FVHookRun& run, const FVHookProcess::StopRequest& stop) {
    if (!hasBefore()) return std::nullopt;
    std::optional<std::string> failure =
        runHook(FVHookKind::Before, options_.beforeHook, runEnvironment(run), stop, run.destination);
    if (!failure) return std::nullopt;
    if (options_.skipRunWhenBeforeHookFails) {
        const std::string reason = *failure + "; the run was skipped";
        FVLog::currentLog().addLogLine("ERROR: " + reason);
        return reason;
    }
    warnings_.push_back(*failure + "; the run went on");
    FVLog::currentLog().addLogLine("WARNING: " + warnings_.back());
    return std::nullopt;
}

void FVRunHooks::runAfter(const FVHookRun& run, const FVHookRunEnd& end) {
    if (!hasAfter()) return;
    FVHookProcess::Environment environment = runEnvironment(run);
    environment.insert(environment.end(), {{"FERROVANE_OUTCOME", end.outcome},
                                           {"FERROVANE_ERRORS", std::to_string(end.errors)},
                                           {"FERROVANE_FILES_COPIED", std::to_string(end.filesCopied)},
                                           {"FERROVANE_BYTES_COPIED", std::to_string(end.bytesCopied)},
                                           {"FERROVANE_LOG_FILE", end.logFile}});
    if (std::optional<std::string> failure = runHook(FVHookKind::After, options_.afterHook, environment, {}, run.destination)) {
        warnings_.push_back(*failure);
        FVLog::currentLog().addLogLine("WARNING: " + warnings_.back());
    }
}

}  // namespace ferrovane
