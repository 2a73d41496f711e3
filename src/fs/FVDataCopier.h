#pragma once
// Copying a file's data from one descriptor to another: in the kernel where it can
// (copy_file_range), through a buffer where it cannot, and only the data regions of a sparse file.

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace ferrovane {

// The largest chunk, and the size of the buffer a copy through user space needs.
inline constexpr size_t kCopyBufferSize = 1048576;

class FVDataCopier {
public:
    enum class Outcome { Done, Cancelled, Failed };  // Failed leaves the failing call's errno
    using ChunkHook = std::function<void(const std::string& sourcePath, uint64_t bytesCopied)>;

    // buffer holds kCopyBufferSize bytes. After every chunk the hook (when set) runs and the
    // cancelled flag is read; the copy stops when it is set.
    FVDataCopier(int in, int out, char* buffer, const std::atomic<bool>& cancelled, const ChunkHook& hook,
                 const std::string& sourcePath)
        : in_(in), out_(out), buffer_(buffer), cancelled_(cancelled), hook_(hook), sourcePath_(sourcePath) {}

    // st is the source's fstat: a file with fewer blocks than its size is copied sparsely.
    Outcome run(const struct stat& st);

private:
    ssize_t chunk(off_t* inOffset, off_t* outOffset, size_t len);
    bool afterChunk(ssize_t n);
    Outcome copyDense(uint64_t size);
    std::optional<Outcome> copySparse();

    int in_, out_;
    char* buffer_;
    const std::atomic<bool>& cancelled_;
    const ChunkHook& hook_;
    const std::string& sourcePath_;
    bool useCopyRange_ = true;
    uint64_t copied_ = 0;
};

}  // namespace ferrovane
