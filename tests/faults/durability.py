"""Durability: before a run reports that it finished, its writes are on the destination's disk
(syncfs after the last change), and the configuration is flushed before it replaces the old one."""

import os
import re
import subprocess

from faultkit import Mirrored, expect, require, run_cases

TREE = {b"a": ("file", 10, 1), b"sub": ("dir",), b"sub/b": ("file", 70000, 2)}


def order(ferrovane, work):
    require("strace")
    destination = Mirrored(ferrovane, work, TREE, first_run=False).destination
    trace = os.path.join(work, "trace")
    r = subprocess.run(["strace", "-f", "-y", "-qq", "-e", "trace=syncfs,fsync,rename,renameat,renameat2",
                        "-o", trace, *ferrovane.args(destination)], env=ferrovane.env, capture_output=True, timeout=120)
    expect(r.returncode == 0, f"run failed: {r.stdout[-300:]}")
    with open(trace, errors="replace") as f:
        calls = [line.split(" ", 1)[1].strip() for line in f if " " in line]
    syncs = [i for i, c in enumerate(calls) if c.startswith("syncfs(") and f"<{destination}>" in c]
    expect(syncs, "no syncfs of the destination")
    mirror_changes = [i for i, c in enumerate(calls) if c.startswith("rename") and "/dest/data" in c]
    expect(mirror_changes and max(mirror_changes) < syncs[-1], "the mirror changed after the last syncfs")
    conf = re.escape(os.path.join(destination, ".ferrovane.conf"))
    flushed = [i for i, c in enumerate(calls) if re.match(rf"fsync\(\d+<{conf}\.\d+\.\w{{6}}>\)", c)]
    replaced = [i for i, c in enumerate(calls) if re.match(rf'rename\("{conf}\.\d+\.\w{{6}}", "{conf}"\)', c)]
    expect(flushed and replaced and flushed[0] < replaced[0], "configuration not flushed before its rename")
    expect(syncs[-1] < replaced[0], "results written back before the destination was flushed")


def run(ferrovane, work, *_):
    yield from run_cases("durability", [("syncfs before finish, configuration fsync before rename",
                                         lambda w: order(ferrovane, w))], work)
