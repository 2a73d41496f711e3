#pragma once
// Replacing a file so that a reader, a crash or a power loss sees either the old or the new
// content, never a mixture.

#include <string>
#include <string_view>

namespace ferrovane::FVAtomicFile {

// Writes bytes to a temporary file beside path, flushes it to disk, renames it over path and
// flushes the folder. Temporary files left beside path by writers that were killed are removed. The replaced file's permission bits are kept. On failure the temporary
// file is removed, path is untouched, and false is returned with the reason in error.
bool write(const std::string& path, std::string_view bytes, std::string* error);

// Reads a whole regular file of at most maxSize bytes. Returns false with errno-style reason on
// failure; tooLarge is set when the file exceeds maxSize, notRegular when it is a FIFO, a device
// or a socket (which are never opened in a way that could block).
bool read(const std::string& path, size_t maxSize, std::string& out, std::string* error,
          bool* tooLarge = nullptr, bool* notRegular = nullptr);

}  // namespace ferrovane::FVAtomicFile
