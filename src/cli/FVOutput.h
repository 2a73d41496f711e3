#pragma once
// Lines for standard output and standard error that never throw: with SIGPIPE ignored, a write
// to a reader that went away fails with EPIPE, and for a run that is only a line not shown.

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace ferrovane::FVOutput {

template <typename... Args>
void print(std::FILE* out, fmt::format_string<Args...> format, Args&&... args) {
    const std::string text = fmt::format(format, std::forward<Args>(args)...);
    std::fwrite(text.data(), 1, text.size(), out);
}

// "ferrovane: error: <text>" on standard error: something the user asked for was not done.
template <typename... Args>
void error(fmt::format_string<Args...> format, Args&&... args) {
    print(stderr, "ferrovane: error: {}\n", fmt::format(format, std::forward<Args>(args)...));
}

// "ferrovane: warning: <text>" on standard error: done, but the user should know something.
template <typename... Args>
void warning(fmt::format_string<Args...> format, Args&&... args) {
    print(stderr, "ferrovane: warning: {}\n", fmt::format(format, std::forward<Args>(args)...));
}

// An engine's error line without its "ERROR: " tag, which error() replaces with its own.
inline std::string_view withoutErrorTag(std::string_view line) {
    return line.starts_with("ERROR: ") ? line.substr(7) : line;
}

}  // namespace ferrovane::FVOutput
