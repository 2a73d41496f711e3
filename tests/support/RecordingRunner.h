#pragma once
// A command runner that records the commands it is given instead of running them.

#include "platform/FVCommandRunner.h"

#include <string>
#include <vector>

namespace ferrovane::test {

class RecordingRunner final : public FVCommandRunner {
public:
    FVCommandResult run(const std::vector<std::string>& argv) override {
        calls.push_back(argv);
        if (!failWith.empty() && argv[0] == "systemctl") return {true, 1, failWith};
        return {true, 0, ""};
    }
    std::vector<std::vector<std::string>> calls;
    // systemctl fails with this when set, as without a service manager.
    std::string failWith;
};

}  // namespace ferrovane::test
