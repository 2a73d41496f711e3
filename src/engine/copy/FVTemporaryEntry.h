#pragma once
// A new destination entry, made under a hidden temporary name in its folder and renamed over its
// real name last, so that the old entry stays whole until the new one is complete. Unless
// published, it is removed again when this goes.

#include "engine/copy/FVFileCopyWorker.h"

#include <cerrno>
#include <string>

namespace ferrovane {

class FVTemporaryEntry {
public:
    enum class Published { Done, CouldNotReplace, DataNotSafe };

    explicit FVTemporaryEntry(int dirFd) : dirFd_(dirFd) {}
    ~FVTemporaryEntry();
    FVTemporaryEntry(const FVTemporaryEntry&) = delete;
    FVTemporaryEntry& operator=(const FVTemporaryEntry&) = delete;

    // Makes the entry with create(name), which returns -1 with errno on failure and is called
    // with another name when one is taken. Returns what create returned.
    template <typename Create>
    int create(Create create) {
        for (int attempt = 0; attempt < 8; ++attempt) {
            name_ = randomName();
            int result = create(name_.c_str());
            if (result >= 0) return result;
            if (errno != EEXIST) break;
        }
        name_.clear();
        return -1;
    }
    const std::string& name() const { return name_; }
    // Renames the finished entry over name. Before an existing file is replaced, the new data
    // (dataFd, or -1 for an entry without data) is flushed, so that a power loss cannot leave
    // neither version. Anything but Done leaves errno of the call that failed.
    Published publish(const std::string& name, int dataFd);
    // Gives the entry a name in toDirFd (a folder on the same file system) only where that name is
    // free; false leaves errno (EEXIST when taken).
    bool publishAsNew(int toDirFd, const std::string& name);
    // Renames the entry over name in toDirFd (a folder on the same file system), replacing what is
    // there; false leaves errno.
    bool replaceIn(int toDirFd, const char* name);

private:
    static std::string randomName();

    int dirFd_;
    std::string name_;
    bool published_ = false;
};

}  // namespace ferrovane
