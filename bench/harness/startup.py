"""The start-up of a command-line run: wall time and the shared objects the process loads."""

import os
import re
import statistics
import subprocess
import time

# Libraries a command-line run has no use for: the window's toolkit, display and Unicode tables.
WINDOW_LIBRARIES = re.compile(r"libQt|libX|libxcb|libGL|libEGL|libOpenGL|libicu|libxkb|libfontconfig|libfreetype")


def median_wall(cmd, env, rounds):
    times = []
    for _ in range(rounds):
        start = time.monotonic()
        subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env, check=True)
        times.append(time.monotonic() - start)
    return statistics.median(times)


def loaded_objects(cmd, env):
    """Every shared object the dynamic loader maps for cmd, those opened later included."""
    out = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                         env=dict(env, LD_DEBUG="files")).stderr
    return sorted({m.group(1) for m in re.finditer(r"file=(\S+) \[\d+\];\s+generating link map", out)})


def window_libraries(objects):
    return [o for o in objects if WINDOW_LIBRARIES.search(os.path.basename(o))]
