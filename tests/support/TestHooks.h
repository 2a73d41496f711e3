#pragma once
// The test side of FVTestHook: arms a named moment in a folder of hooks, waits until a process
// started with env() reaches it, and releases it.

#include <string>
#include <utility>

namespace ferrovane::test {

class TestHooks {
public:
    explicit TestHooks(std::string folder);

    // FERROVANE_TEST_HOOKS and its value, for the process to start.
    std::pair<std::string, std::string> env() const { return {"FERROVANE_TEST_HOOKS", folder_}; }
    // The moment fires once for an item whose path holds pattern; with hold the process then
    // waits in it until release().
    void arm(const std::string& moment, const std::string& pattern = "", bool hold = true) const;
    // Whether the moment was reached within the seconds given.
    bool waitUntilReached(const std::string& moment, double seconds = 60) const;
    void release(const std::string& moment) const;

private:
    std::string folder_;
};

}  // namespace ferrovane::test
