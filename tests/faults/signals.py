"""Signals: a reader of the output that goes away never ends a run; SIGHUP, SIGTERM and SIGINT
cancel a backup or a restore held in the middle of a copy, with nothing half-written left and the
exit status 128 + the signal. Afterwards every earlier version is kept and the next clean run (or
restore) completes. (Signals held at the other moments of a run and of a verify are the command
line's tests; SIGKILL at random moments is the crash part.)"""

import os
import random
import shutil
import signal
import subprocess

from faultkit import (Hooks, Mirrored, content, digest, expect, expect_clean_rerun, expect_kept,
                      expect_no_temporaries, expect_status, finish, generate_tree, log_since, log_size,
                      mirror_differences, run_cases, versions, write)

MOMENT = "during-data-copy"
CANCELLED = "copy-cancelled"
SIGNALS = (signal.SIGHUP, signal.SIGTERM, signal.SIGINT)


class Destination(Mirrored):
    """A source backed up once, then changed (big0.bin among the changes), so that the next run
    copies, archives and removes; for a restore (kind), backed up once more. Restores go into a
    folder of their own."""

    def __init__(self, ferrovane, work, kind="backup"):
        rng = random.Random("0/signals")
        tree = generate_tree(rng, folders=12, files=150, big_sizes=(8 << 20,))
        super().__init__(ferrovane, work, tree, (("moveChangedFiles", 1),))
        self.restored = os.path.join(work, "restored")
        self.hooks = Hooks(os.path.join(work, "hooks"))
        files = sorted(r for r, k in tree.items() if k[0] == "file")
        for rel in rng.sample(files, 30) + [r for r in files if r.startswith(b"big0") or b"/big0" in r]:
            write(os.path.join(os.fsencode(self.source), rel), content(tree[rel][1] + 1, tree[rel][2] + 1), 2_000_000_000)
        for rel in rng.sample(files, 10):
            path = os.path.join(os.fsencode(self.source), rel)
            if os.path.exists(path):
                os.unlink(path)
        self.kind = kind
        if kind == "restore":
            ferrovane.complete(self.destination)
        self.before = versions(self.destination)

    def restore_args(self, to=None):
        return [*self.ferrovane.prefix, self.ferrovane.executable, "restore", self.destination, self.source,
                "--to", to or self.restored]

    def held(self):
        """Starts a run of its kind held in the middle of copying big0.bin's data: its temporary
        copy exists."""
        self.hooks.arm(MOMENT, b"big0")
        self.hooks.arm(CANCELLED, hold=False)
        if self.kind == "restore":
            os.makedirs(self.restored, exist_ok=True)
        process = subprocess.Popen(self.restore_args() if self.kind == "restore" else self.ferrovane.args(self.destination),
                                   env=dict(self.ferrovane.env, **self.hooks.env), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.hooks.wait(MOMENT, process)
        return process

    def cancel_held(self, process, number):
        """Signals a held run and lets it go on once its copy is cancelled."""
        process.send_signal(number)
        self.hooks.wait(CANCELLED, process)
        self.hooks.release(MOMENT)


def expect_restored_exactly(mirror, restored):
    """Nothing half-written: no temporary copy, and each file there equals its version."""
    expect_no_temporaries(restored)
    torn = []
    for parent, _, names in os.walk(os.fsencode(restored)):
        for name in names:
            path = os.path.join(parent, name)
            version = os.path.join(os.fsencode(mirror), os.path.relpath(path, os.fsencode(restored)))
            if not os.path.islink(path) and digest(path) != digest(version):
                torn.append(path)
    expect(not torn, f"restored files differ from their version: {torn[:3]}")


def expect_restored(d, what="the restore"):
    expect(mirror_differences(d.mirror, os.path.join(d.restored, "data")) == "", f"{what} is not complete")


def closed_reader(ferrovane, work, kind):
    """The reader goes away (as `| head -1` does) while the run still has its outcome to print."""
    d = Destination(ferrovane, work, kind)
    offset = log_size(ferrovane)
    process = d.held()
    process.stdout.close()
    d.hooks.release(MOMENT)
    err = process.stderr.read()
    process.wait(timeout=120)
    expect(process.returncode == 0, f"the {kind} ended with {process.returncode}: {err[-600:]!r}")
    if kind == "restore":
        return expect_restored(d)
    expect(b"Sync finished" in log_since(ferrovane, offset), "the run log has no end line")
    expect(mirror_differences(d.source, d.mirror) == "", "the mirror is not complete")
    expect_kept(d.destination, d.before)
    expect_no_temporaries(d.destination)


def signalled(ferrovane, work, kind, number):
    d = Destination(ferrovane, work, kind)
    process = d.held()
    # The copy goes on from the moment only once cancelled: it then removes its temporary copy.
    d.cancel_held(process, number)
    expect_status(finish(process), 128 + number, f"the signalled {kind}")
    expect_kept(d.destination, d.before)
    if kind == "backup":
        expect_no_temporaries(d.destination)
        return expect_clean_rerun(ferrovane, d.destination, [d.source], d.before)
    expect(any(True for _ in os.scandir(d.restored)), "the restore wrote nothing before the signal")
    expect_restored_exactly(d.mirror, os.path.join(d.restored, "data"))
    again = subprocess.run(d.restore_args(), env=ferrovane.env, capture_output=True, timeout=120)
    expect_status(again, 0, "the restore after the cancelled one")
    expect_restored(d)


def run(ferrovane, work, *_):
    cases = []
    for kind in ("backup", "restore"):
        cases.append((f"closed reader of a {kind}'s output", lambda w, k=kind: closed_reader(ferrovane, w, k)))
        for number in SIGNALS:
            cases.append((f"{signal.Signals(number).name} mid-copy of a {kind}",
                          lambda w, k=kind, n=number: signalled(ferrovane, w, k, n)))
    yield from run_cases("signals", cases, work, after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
