#pragma once
// Runs a program with arguments and environment, capturing its output and exit status.

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ferrovane::test {

struct ProcessResult {
    int exitStatus = -1;  // -1 when killed by a signal
    int signal = 0;
    std::string out;
    std::string err;
    double seconds = 0;
};

using ProcessEnvironment = std::map<std::string, std::optional<std::string>>;

// env entries replace or (with nullopt) remove variables of the test's own environment.
ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessEnvironment& env = {},
                         double timeoutSeconds = 120);

// Starts argv in the background with its standard output into outPath; the caller waits for it.
pid_t startProcess(const std::vector<std::string>& argv, const ProcessEnvironment& env, const std::string& outPath);

}  // namespace ferrovane::test
