#pragma once
// Tells when a mount point disappears from the mount table (a disk unplugged or unmounted).

#include <functional>
#include <memory>
#include <string>

namespace ferrovane {

class FVMountWatcher {
public:
    using Handler = std::function<void(const std::string& mountPoint)>;
    virtual ~FVMountWatcher() = default;
    // Starts watching on a thread of its own; the handler runs on that thread. Returns null
    // when the mount table cannot be watched.
    static std::unique_ptr<FVMountWatcher> start(Handler handler);
};

}  // namespace ferrovane
