#include "search/FVSearchQuery.h"

#include "search/FVSearchText.h"

#include <algorithm>

namespace ferrovane {

FVSearchQuery::FVSearchQuery(std::string_view text) {
    size_t start = 0;
    for (;;) {
        size_t blank = text.find(' ', start);
        terms_.push_back(FVSearchText::lowercased(text.substr(start, blank - start)));
        if (blank == std::string_view::npos) break;
        start = blank + 1;
    }
}

bool FVSearchQuery::matches(std::string_view name) const {
    // Most names are ASCII; only the others go through the Unicode case mapping.
    if (std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        lowerName_.assign(name);
        for (char& c : lowerName_)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    } else {
        lowerName_ = FVSearchText::lowercased(name);
    }
    return std::all_of(terms_.begin(), terms_.end(), [&](const std::string& term) {
        return !term.empty() && lowerName_.find(term) != std::string::npos;
    });
}

}  // namespace ferrovane
