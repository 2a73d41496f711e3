#pragma once
// One user command run through "/bin/sh -c" with a time limit: in a process group of its own, so
// that whatever it starts ends with it when the limit passes (SIGTERM to the group, SIGKILL a few
// seconds later), with its standard output and error handed over line by line, standard input
// from /dev/null and "/" as its working folder.

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ferrovane {

struct FVHookProcessResult {
    bool started = false;   // false when the shell could not be run at all
    int exitStatus = -1;    // -1 when it did not exit normally
    int signal = 0;         // the signal that ended it, if one did
    bool timedOut = false;  // ended because its time limit passed
    bool stopped = false;   // ended because the caller asked it to stop
    std::string error;      // why it could not be started
    bool succeeded() const { return started && exitStatus == 0 && !timedOut && !stopped; }
};

class FVHookProcess {
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;
    using LineHandler = std::function<void(std::string_view line)>;
    using StopRequest = std::function<bool()>;

    // How long a group has between SIGTERM and SIGKILL.
    static constexpr std::chrono::milliseconds kGrace{3000};

    // Runs command with the process's environment plus (or overriding) environment. Each line
    // of its output goes to output as it comes; stop, when set, is asked a few times a second.
    static FVHookProcessResult run(const std::string& command, const Environment& environment,
                                   std::chrono::milliseconds limit, const LineHandler& output,
                                   const StopRequest& stop = {});
};

}  // namespace ferrovane
