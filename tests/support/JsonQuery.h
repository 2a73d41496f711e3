#pragma once
// Reads a command's --json output the way a script would: Python's json module parses it, and a
// Python expression over the result (named d) picks the value to compare.

#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <string>

namespace ferrovane::test {

// The printed value of expression, or "invalid: <why>" when the text is not JSON.
inline std::string jsonQuery(const std::string& json, const std::string& expression) {
    TempDir dir;
    writeFile(dir / "out.json", json);
    auto r = runProcess({"/usr/bin/python3", "-c",
                         "import json,sys\nd=json.load(open(sys.argv[1]))\nprint(eval(sys.argv[2]), end='')",
                         dir / "out.json", expression});
    return r.exitStatus == 0 ? r.out : "invalid: " + r.err;
}

}  // namespace ferrovane::test
