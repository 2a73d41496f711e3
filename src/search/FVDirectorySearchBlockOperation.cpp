#include "search/FVDirectorySearchBlockOperation.h"

#include "search/FVSearchText.h"

#include <fts.h>

#include <algorithm>

namespace ferrovane {

namespace {

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace

FVDirectorySearchBlockOperation::FVDirectorySearchBlockOperation(
    FVMainQueue& mainQueue, std::string searchFolderPath, std::string searchString,
    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate)
    : mainQueue_(mainQueue),
      searchFolderPath_(std::move(searchFolderPath)),
      terms_([&] {
          auto terms = searchTerms(searchString);
          for (auto& term : terms) term = FVSearchText::lowercased(term);
          return terms;
      }()),
      delegate_(std::move(delegate)) {}

std::vector<std::string> FVDirectorySearchBlockOperation::searchTerms(std::string_view searchString) {
    std::vector<std::string> terms;
    size_t start = 0;
    for (;;) {
        size_t blank = searchString.find(' ', start);
        terms.emplace_back(searchString.substr(start, blank - start));
        if (blank == std::string_view::npos) return terms;
        start = blank + 1;
    }
}

bool FVDirectorySearchBlockOperation::nameMatches(std::string_view name,
                                                  const std::vector<std::string>& lowercasedTerms) {
    std::string lowerName = FVSearchText::lowercased(name);
    return std::all_of(lowercasedTerms.begin(), lowercasedTerms.end(), [&](const std::string& term) {
        return !term.empty() && lowerName.find(term) != std::string::npos;
    });
}

void FVDirectorySearchBlockOperation::main() {
    walk();
    // Handing the delegate over means this worker never drops the last reference to it.
    if (delegate_) mainQueue_.post([delegate = std::move(delegate_)] { delegate->didFinish(); });
}

void FVDirectorySearchBlockOperation::report(std::string path) {
    if (delegate_)
        mainQueue_.post([delegate = delegate_, path = std::move(path), cancelled = cancelled_] {
            if (!cancelled->load(std::memory_order_relaxed)) delegate->didFindMatch(path);
        });
}

void FVDirectorySearchBlockOperation::walk() {
    if (isCancelled()) return;
    std::string root = searchFolderPath_;
    char* roots[] = {root.data(), nullptr};
    // Links inside are not followed, but a destination named through a link is searched.
    FTS* tree = fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR | FTS_XDEV, nullptr);
    if (!tree) return;
    while (!isCancelled()) {
        FTSENT* entry = fts_read(tree);
        if (!entry) break;  // done, or the tree vanished under the walk
        // The search folder is what is searched, not a candidate, whatever its name.
        if (entry->fts_level == FTS_ROOTLEVEL) continue;
        std::string_view name(entry->fts_name, entry->fts_namelen);
        std::string_view path(entry->fts_path, entry->fts_pathlen);
        switch (entry->fts_info) {
        case FTS_D:
            if (name.front() == '.' || endsWith(path, "/Library") || endsWith(path, "/System") ||
                endsWith(path, "/private")) {
                fts_set(tree, entry, FTS_SKIP);
                continue;
            }
            // An application bundle counts as one item.
            if (endsWith(path, ".app")) fts_set(tree, entry, FTS_SKIP);
            break;
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            if (name.front() == '.') continue;
            break;
        default:  // directories on the way out, unreadable folders, other kinds, errors
            continue;
        }
        if (nameMatches(name, terms_)) report(std::string(path));
    }
    fts_close(tree);
}

}  // namespace ferrovane
