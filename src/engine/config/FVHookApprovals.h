#pragma once
// Which hook commands this user on this machine has set or approved, per destination identity.
// A destination's configuration travels with its disk, so a hook found there is run only when the
// very same command is recorded here, outside every destination: in
// $XDG_STATE_HOME/Ferrovane/hooks/ (root: /var/lib/Ferrovane/hooks/), one file per UUID, in a
// folder only this user can write to.

#include <optional>
#include <string>

namespace ferrovane {

enum class FVHookKind { Before, After };

const char* hookKindName(FVHookKind kind);  // "before" or "after"

class FVHookApprovals {
public:
    // The default folder for this user (empty when there is no home folder to keep it in);
    // $FERROVANE_HOOK_APPROVAL_DIRECTORY replaces it.
    static std::string defaultFolder();
    explicit FVHookApprovals(std::string folder = defaultFolder()) : folder_(std::move(folder)) {}

    const std::string& folder() const { return folder_; }
    // Whether command is the one approved for this kind of hook of the destination uuid. A file
    // that another user owns or could change approves nothing.
    bool isApproved(const std::string& uuid, FVHookKind kind, const std::string& command) const;
    // Records command as approved (empty: forgets the approval). False with the reason when it
    // cannot be written.
    bool approve(const std::string& uuid, FVHookKind kind, const std::string& command, std::string* error = nullptr);

private:
    std::optional<std::string> approved(const std::string& uuid, FVHookKind kind) const;
    std::string pathOf(const std::string& uuid) const { return folder_ + "/" + uuid + ".hooks"; }
    std::string folder_;
};

}  // namespace ferrovane
