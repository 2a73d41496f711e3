"""System-call faults: strace fails one call of a run from its Nth use on (EIO, ENOSPC, EACCES,
EROFS), with both archives on and files changed and removed since the last run. Whatever failed,
every earlier version is in the mirror or an archive, and a clean run then completes the mirror."""

import collections
import os
import re
import shutil
import subprocess

from faultkit import (Failure, build, content, expect, expect_clean_rerun, expect_configuration, expect_kept,
                      next_second, read_configuration, tail, versions)

NAME = "data"
CALLS = ("openat", "openat2", "mkdirat", "renameat2", "write", "copy_file_range", "fsync", "fchown", "fsetxattr",
         "unlinkat")
ERRORS = ("EIO", "ENOSPC", "EACCES", "EROFS")
POSITIONS = (0.3, 0.6, 0.9)  # where in the run's calls of that kind the fault starts
QUICK = (("renameat2", "EIO", 0.3), ("copy_file_range", "ENOSPC", 0.6), ("openat", "EACCES", 0.6),
         ("mkdirat", "EROFS", 0.6))
OPTIONS = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"))


def make_tree():
    tree = {b"d%d" % d: ("dir",) for d in range(6)}
    tree.update({b"d%d/f%02d" % (i % 6, i): ("file", 900 * (i % 7) + i, i) for i in range(48)})
    tree[b"d5/deep"] = ("dir",)
    tree.update({b"d5/deep/g%d" % i: ("file", 3000, 100 + i) for i in range(6)})
    return tree


def change(source, tree):
    """Changes 30 files, removes 8 and one whole folder, adds 5, and gives some files attributes so
    that the run sets them."""
    files = sorted(r for r, k in tree.items() if k[0] == "file" and not r.startswith(b"d5/"))
    for i, rel in enumerate(files[:30]):
        path = os.path.join(source, rel)
        with open(path, "wb") as f:
            f.write(content(tree[rel][1] + 5, tree[rel][2] + 1000))
        os.setxattr(path, b"user.note", b"v%d" % i)
        os.utime(path, (2_000_000_000, 2_000_000_000))
    for rel in files[30:38]:
        os.unlink(os.path.join(source, rel))
    shutil.rmtree(os.path.join(source, b"d5"))
    for i in range(5):
        path = os.path.join(source, b"d0/new%d" % i)
        with open(path, "wb") as f:
            f.write(content(2000, 500 + i))
        os.setxattr(path, b"user.note", b"new")
    for folder, _, _ in os.walk(source):
        os.utime(folder, (1_500_000_000, 1_500_000_000))


class Sweep:
    def __init__(self, ferrovane, work):
        self.ferrovane = ferrovane
        self.live, self.template = os.path.join(work, "live"), os.path.join(work, "template")
        self.source = os.path.join(self.live, "src", NAME)
        self.destination = os.path.join(self.live, "dest")
        tree = make_tree()
        build(os.fsencode(self.source), tree)
        os.makedirs(self.destination)
        ferrovane.configure(self.destination, [self.source], OPTIONS)
        ferrovane.complete(self.destination)
        change(os.fsencode(self.source), tree)
        self.before = versions(self.destination)
        self.configuration = read_configuration(self.destination)
        subprocess.run(["cp", "-a", self.live, self.template], check=True)
        self.counts = self.count()

    def restore(self):
        subprocess.run(["rm", "-rf", self.live], check=True)
        subprocess.run(["cp", "-a", self.template, self.live], check=True)

    def strace(self, *options, trace="/dev/null"):
        return subprocess.run(["strace", "-f", "-qq", *options, "-o", trace, *self.ferrovane.args(self.destination)],
                              env=self.ferrovane.env, capture_output=True, timeout=180)

    def count(self):
        """How often an undisturbed run makes each call."""
        self.restore()
        trace = os.path.join(os.path.dirname(self.live), "trace")
        r = self.strace("-e", "trace=" + ",".join(CALLS), trace=trace)
        expect(r.returncode == 0, f"the undisturbed run failed: {tail(r)}")
        with open(trace, errors="replace") as f:
            return collections.Counter(m.group(1) for m in (re.match(r"\d+\s+(\w+)\(", line) for line in f) if m)

    def inject(self, call, error, nth):
        self.restore()
        # Any ending is allowed (a fault while loading libraries ends the process before it
        # starts); what counts is that nothing was lost.
        r = self.strace("-e", f"inject={call}:error={error}:when={nth}+")
        expect_kept(self.destination, self.before)
        expect_configuration(self.destination, self.configuration)
        next_second()  # a stamp folder reused within one second has a case of its own
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], self.before)
        return r.returncode


def run(ferrovane, work, tier):
    if not shutil.which("strace"):
        yield ("inject", "system-call faults", "strace missing", "skipped")
        return
    sweep = Sweep(ferrovane, work)
    cases = QUICK if tier == "quick" else [(c, e, p) for c in CALLS for e in ERRORS for p in POSITIONS]
    done = set()
    for call, error, position in cases:
        total = sweep.counts[call]
        name = f"{call} fails with {error}"
        nth = max(1, round(total * position))
        if (call, error, nth) in done:
            continue  # a call the run makes only a few times has fewer distinct starting points
        done.add((call, error, nth))
        if not total:
            yield ("inject", name, "the run makes no such call", "skipped")
            continue
        where = f"from call {nth} of {total}"
        try:
            status = sweep.inject(call, error, nth)
            yield ("inject", name, f"{where}, run exit {status}", "ok")
        except Failure as e:
            yield ("inject", name, where, f"FAILED: {e}")
