"""System-call faults: strace fails one call of a run from its Nth use on (EIO, ENOSPC, EACCES,
EROFS), with both archives on and files changed and removed since the last run. Whatever failed,
every earlier version is in the mirror or an archive, and a clean run then completes the mirror.
A disk that fails, fills or turns read-only under a call only the destination sees ends the run
with exactly one line that names the cause, at whatever step it strikes."""

import collections
import os
import re
import shutil
import subprocess

from faultkit import (Replayed, Unavailable, content, date_folders, expect, expect_clean_rerun, log_since, log_size,
                      next_second, run_cases, tail, write)

CALLS = ("openat", "openat2", "mkdirat", "renameat2", "write", "copy_file_range", "fsync", "fchown", "fsetxattr",
         "unlinkat", "utimensat", "fchmod", "syncfs")
# Calls the run makes on the destination alone (sources are only read, the log is written; fsync
# is the configuration's write-back after the run, whose failure is a warning of its own).
DESTINATION_CALLS = {"mkdirat", "renameat2", "copy_file_range", "fchown", "fsetxattr", "unlinkat", "utimensat",
                     "fchmod", "syncfs"}
ERRORS = ("EIO", "ENOSPC", "EACCES", "EROFS")
# The disk's own failures, and the words of the line that names each.
FATAL = {"EIO": b"Destination failed: Input/output error (EIO) while ", "ENOSPC": b"No free space left at destination",
         "EROFS": b"Destination is read-only",
         # A FUSE driver that died under the run.
         "ENOTCONN": b"Destination failed: Transport endpoint is not connected (ENOTCONN) while "}
# Where in the run's calls of that kind the fault starts; the last call of a kind is the last
# folder's metadata for utimensat and fchmod.
POSITIONS = (0.3, 0.6, 0.9, 1.0)
QUICK = (("renameat2", "EIO", 0.3), ("copy_file_range", "ENOSPC", 0.6), ("mkdirat", "ENOTCONN", 0.6), ("openat", "EACCES", 0.6),
         ("mkdirat", "EROFS", 0.6), ("mkdirat", "EIO", 0.3), ("syncfs", "EIO", 1.0),
         ("fchown", "EIO", 0.6), ("fsetxattr", "EIO", 0.3), ("fsetxattr", "EACCES", 0.3), ("utimensat", "EIO", 1.0),
         ("fchmod", "EIO", 1.0),
         ("utimensat", "EROFS", 1.0), ("renameat2", "EIO", 1.0),
         ("unlinkat", "EIO", 0.3))
# strace counts a call's uses per thread: with one copy thread, each thread's calls come in the
# same order in every run, so that the Nth use is the same moment each time.
OPTIONS = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"), ("maxThreads", 1))


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
        write(path, content(tree[rel][1] + 5, tree[rel][2] + 1000))
        os.setxattr(path, b"user.note", b"v%d" % i)
        os.utime(path, (2_000_000_000, 2_000_000_000))
    for rel in files[30:38]:
        os.unlink(os.path.join(source, rel))
    shutil.rmtree(os.path.join(source, b"d5"))
    for i in range(5):
        write(source + b"/d0/new%d" % i, content(2000, 500 + i))
        os.setxattr(source + b"/d0/new%d" % i, b"user.note", b"new")
    date_folders(source)


class Sweep(Replayed):
    def __init__(self, ferrovane, work):
        tree = make_tree()
        super().__init__(ferrovane, work, tree, OPTIONS)
        change(os.fsencode(self.source), tree)
        self.keep()
        self.trace = os.path.join(work, "trace")
        self.counts = self.count()

    def strace(self, *options, trace="/dev/null"):
        return subprocess.run(["strace", "-f", "-qq", *options, "-o", trace, *self.ferrovane.args(self.destination)],
                              env=self.ferrovane.env, capture_output=True, timeout=180)

    def count(self):
        """How often an undisturbed run makes each call in the thread that makes it most (strace
        counts the uses of a call per thread)."""
        self.restore()
        r = self.strace("-e", "trace=" + ",".join(CALLS), trace=self.trace)
        expect(r.returncode == 0, f"the undisturbed run failed: {tail(r)}")
        with open(self.trace, errors="replace") as f:
            per_thread = collections.Counter(m.groups() for m in (re.match(r"(\d+)\s+(\w+)\(", line) for line in f) if m)
        counts = collections.Counter()
        for (_, call), n in per_thread.items():
            counts[call] = max(counts[call], n)
        return counts

    def inject(self, call, error, nth):
        if not self.counts[call]:
            raise Unavailable("the run makes no such call")
        self.restore()
        offset = log_size(self.ferrovane)
        # Any ending is allowed (a fault while loading libraries ends the process before it
        # starts); what counts is that nothing was lost.
        r = self.strace("-e", f"trace={call}", "-e", f"inject={call}:error={error}:when={nth}+", trace=self.trace)
        with open(self.trace, errors="replace") as f:
            expect("(INJECTED)" in f.read(), "the fault never struck")
        if call in DESTINATION_CALLS and error in FATAL:
            expect_one_fatal_line(r, log_since(self.ferrovane, offset), FATAL[error])
        next_second()  # a stamp folder reused within one second has a case of its own
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], self.before, self.configuration)
        return f"run exit {r.returncode}"


def expect_one_fatal_line(result, log, cause):
    """The run stopped at once with one line that names the cause, not an error per item."""
    expect(result.returncode == 255, f"the run went on to exit {result.returncode}: {tail(result)}")
    fatal = [line for line in log.splitlines() if b"Aborting backup." in line]
    expect(len(fatal) == 1 and cause in fatal[0], f"not one line naming {cause!r}: {fatal[:3]}")
    expect(b"Copy failed" not in log, f"{log.count(b'Copy failed')} 'Copy failed' lines beside it")


def run(ferrovane, work, tier, _):
    if not shutil.which("strace"):
        yield ("inject", "system-call faults", "strace missing", "skipped")
        return
    sweep = Sweep(ferrovane, work)
    cases = QUICK if tier == "quick" else [(c, e, p) for c in CALLS for e in ERRORS for p in POSITIONS]
    # A call the run makes only a few times has fewer distinct starting points.
    starts = dict.fromkeys((call, error, max(1, round(sweep.counts[call] * position))) for call, error, position in cases)
    yield from run_cases("inject", [(f"{call} fails with {error} from call {nth} of {sweep.counts[call]} in a thread",
                                     lambda _, c=call, e=error, n=nth: sweep.inject(c, e, n))
                                    for call, error, nth in starts], os.path.join(work, "cases"))
