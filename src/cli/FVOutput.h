#pragma once
// Lines for standard output and standard error that never throw: with SIGPIPE ignored, a write
// to a reader that went away fails with EPIPE, and for a run that is only a line not shown.

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

namespace ferrovane::FVOutput {

template <typename... Args>
void print(std::FILE* out, fmt::format_string<Args...> format, Args&&... args) {
    const std::string text = fmt::format(format, std::forward<Args>(args)...);
    std::fwrite(text.data(), 1, text.size(), out);
}

}  // namespace ferrovane::FVOutput
