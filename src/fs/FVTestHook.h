#pragma once
// Lets the fault tests hold a run at a named moment instead of sleeping and hoping. With
// FERROVANE_TEST_HOOKS naming a folder, a moment whose trigger file "<folder>/<moment>" exists,
// and whose text is part of the item's path, fires once: the path is written to
// "<folder>/<moment>.reached", and the calling thread then waits until the test opens and closes
// the FIFO "<folder>/<moment>.release" for writing (no such FIFO: it goes on at once).
// Without the variable every call returns at once.

#include <string_view>

namespace ferrovane::FVTestHook {

void reach(std::string_view moment, std::string_view path = {});

}  // namespace ferrovane::FVTestHook
