#pragma once
// Starting a system tool and waiting for it (systemctl). An interface, so that tests
// can record the calls instead of touching the service manager.

#include <string>
#include <vector>

namespace ferrovane {

struct FVCommandResult {
    bool started = false;  // false when the program could not be run at all
    int exitStatus = -1;   // -1 when it did not exit normally
    std::string error;     // why it could not be started or did not exit normally
    bool succeeded() const { return started && exitStatus == 0; }
};

class FVCommandRunner {
public:
    virtual ~FVCommandRunner() = default;
    // argv[0] is looked up in PATH unless it contains a slash. Standard output goes to the
    // caller's; the error output becomes the result's error when the command fails.
    virtual FVCommandResult run(const std::vector<std::string>& argv) = 0;
};

class FVProcessCommandRunner final : public FVCommandRunner {
public:
    FVCommandResult run(const std::vector<std::string>& argv) override;
};

}  // namespace ferrovane
