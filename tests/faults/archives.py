"""Archives and overlapping runs: an archive move that fails never costs the old version, a run
never reuses a stamp folder an earlier run made, and a configuration edit made during a run
survives it. (A run on a busy destination is refused in the restores part.)"""

import os
import plistlib
import shutil
import stat
import subprocess
import time

from faultkit import (Hooks, Mirrored, TEMPORARY_PREFIX, content, expect, expect_clean_rerun, expect_kept,
                      expect_mirror, expect_no_temporaries, expect_status, next_second, read_configuration, run_cases,
                      tail, version, versions, write)

NAME = Mirrored.NAME
OPTIONS = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"))
TREE = {b"f": ("file", 5000, 1), b"sub": ("dir",), b"sub/g": ("file", 3000, 2), b"sub/gone": ("file", 100, 3)}


class Destination(Mirrored):
    """A source mirrored once with both archives on."""

    def __init__(self, ferrovane, work):
        super().__init__(ferrovane, work, TREE, OPTIONS)
        self.generation = 0

    def change(self, rel="f", size=5000):
        """Gives a source file new content and a new date."""
        self.generation += 1
        write(self.path(rel), content(size + self.generation, 1000 + self.generation), 2_000_000_000 + 100 * self.generation)

    def mirrored(self, rel):
        return os.path.join(os.fsencode(self.mirror), os.fsencode(rel))

    def clean_rerun(self, before):
        next_second()
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], before)


def stamp(seconds):
    return time.strftime("%Y-%m-%d %H.%M.%S +0000", time.gmtime(seconds))


def planted_stamps(d):
    """Stamp folders of the next seconds already hold the changed file."""
    now = int(time.time())
    for second in range(now, now + 6):
        folder = os.path.join(d.destination, "__changed", stamp(second), NAME)
        os.makedirs(folder, exist_ok=True)
        write(os.path.join(folder, "f"), b"planted before the run")


def link_at_changed(d):
    outside = os.path.join(d.work, "outside")
    os.makedirs(outside, exist_ok=True)
    os.symlink(outside, os.path.join(d.destination, "__changed"))
    return lambda: os.unlink(os.path.join(d.destination, "__changed"))


def append_only_file(d):
    subprocess.run(["chattr", "+a", d.mirrored("f")], check=True)
    return lambda: subprocess.run(["chattr", "-a", d.mirrored("f")], capture_output=True)


# The run's first rename is the archive move of the changed file.
NO_SPACE = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=renameat2:error=ENOSPC:when=1"]

# name: (what is planted before the run and returns how to undo it, whether the planted files are
# versions the run must keep, what the run is started through)
ARCHIVE_FAULTS = {"stamp folder already holds the path": (planted_stamps, True, ()),
                  "link planted at __changed": (link_at_changed, False, ()),
                  "append-only file in the mirror": (append_only_file, False, ()),
                  "no space for the archive move": (lambda d: None, False, NO_SPACE)}


def archive_move_fails(ferrovane, work, plant, planted_are_versions, prefix):
    """The old version stays in the mirror untouched (and the run says so), or it reached the
    archive; the next clean run archives it and mirrors the new one."""
    d = Destination(ferrovane, work)
    d.change()
    before = versions(d.destination)
    undo = plant(d)
    if planted_are_versions:
        before = versions(d.destination)
    old = before[os.path.join(NAME.encode(), b"f")]
    try:
        r = subprocess.run([*prefix, *ferrovane.args(d.destination)], env=ferrovane.env, capture_output=True,
                           timeout=120)
    finally:
        if undo:
            undo()
    expect_kept(d.destination, before)
    if version(os.path.realpath(os.fsencode(d.destination)), os.path.join(NAME.encode(), b"f")) == old:
        expect(r.returncode == 255, f"the old version stayed but the run reported no error: {tail(r)}")
    d.clean_rerun(before)


def runs_in_one_second(ferrovane, work):
    """A run right after another in the same second leaves the earlier run's stamp folder as it
    was and keeps every version."""
    d = Destination(ferrovane, work)
    next_second()
    d.change()
    before = versions(d.destination)
    ferrovane.complete(d.destination)
    changed = os.path.join(d.destination, "__changed")
    earlier = {s: versions(os.path.join(changed, s)) for s in os.listdir(changed)}
    d.change()
    before_second = versions(d.destination)
    r = ferrovane.run(d.destination)
    for s, held in earlier.items():
        expect(versions(os.path.join(changed, s)) == held, f"the second run put items into the stamp folder {s!r}")
    expect_kept(d.destination, before)
    expect_kept(d.destination, before_second)
    expect_status(r, 0, "the second run")
    d.clean_rerun(before_second)


def config_during_a_run(ferrovane, work):
    """`config add` and `config set` made while a run is held at work: if they report success,
    the change is in the configuration after the run; otherwise they said why."""
    d = Destination(ferrovane, work)
    d.change()
    other = os.path.join(work, "other")
    os.makedirs(other)
    hooks = Hooks(os.path.join(work, "hooks"))
    process = ferrovane.start_held(d.destination, hooks, "between-files", b"/data/f")
    try:
        added = ferrovane.config(d.destination, "add", other)
        changed = ferrovane.config(d.destination, "set", "purgeChangedArchiveDays", "45")
    finally:
        hooks.release("between-files")
    out, _ = process.communicate(timeout=120)
    expect(process.returncode in (0, 255), f"the run failed: {out[-400:]}")
    configuration = plistlib.loads(read_configuration(d.destination))
    kept = {"add": other in [s.get("sourcePath") for s in configuration["sources"]],
            "set": configuration["settings"].get("purgeChangedArchiveDays") == 45}
    for name, r in (("add", added), ("set", changed)):
        if r.returncode == 0:
            expect(kept[name], f"config {name} reported success but the run threw the change away")
        else:
            expect(r.stderr.strip() or r.stdout.strip(), f"config {name} failed without a message")


def inodes(root):
    """The inode of every regular file below root (a link's target cannot be edited in place)."""
    found = (os.lstat(os.path.join(f, n)) for f, _, names in os.walk(root) for n in names)
    return {st.st_ino for st in found if stat.S_ISREG(st.st_mode)}


def interrupt_unshare(ferrovane, work, destination, refused):
    """Runs destination until it made the copy that gives a file of a folder about to be archived
    data of its own; then kills the run (SIGKILL), or takes that copy away once and lets it go on."""
    hooks = Hooks(os.path.join(work, "hooks"))
    process = ferrovane.start_held(destination, hooks, "after-unshare-copy")
    try:
        if refused:
            beside = os.path.join(os.fsencode(destination), NAME.encode())
            for name in os.listdir(beside):
                if name.startswith(TEMPORARY_PREFIX):
                    os.unlink(os.path.join(beside, name))
            hooks.release("after-unshare-copy")
            process.communicate(timeout=120)
    finally:
        if process.poll() is None:
            process.kill()
            process.communicate()


def hard_link_groups(ferrovane, work, refused=False):
    """Names of one file (or link) in several folders stay names of one file in the mirror while the file
    changes, loses a name, and a name leaves it; every run keeps every version, no archived file
    shares its inode with the mirror, not even after a run killed (or refused a copy) while a removed
    folder's names got copies of their own, and a clean rerun changes nothing."""
    d = Destination(ferrovane, work)
    source, mirror = os.fsencode(d.source), d.mirrored("")
    os.makedirs(os.path.join(source, b"other"))
    os.symlink(b"../f", os.path.join(source, b"sub/link"))
    for first, later in ((b"f", (b"sub/f2", b"other/f3", b"other/f4")), (b"sub/g", (b"g2",)),
                         (b"sub/link", (b"other/link",))):
        for name in later:
            os.link(os.path.join(source, first), os.path.join(source, name), follow_symlinks=False)

    def leave():
        os.unlink(os.path.join(source, b"g2"))
        d.change("g2", 200)
        shutil.rmtree(os.path.join(source, b"other"))

    for step, killed in ((lambda: None, False),
                         (lambda: (d.change("f"), os.unlink(os.path.join(source, b"other/f3"))), False),
                         (leave, True)):
        next_second()
        step()
        before = versions(d.destination)
        if killed:
            interrupt_unshare(ferrovane, work, d.destination, refused)
            expect_kept(d.destination, before)
            next_second()
        ferrovane.complete(d.destination)
        expect_no_temporaries(d.destination)
        expect_kept(d.destination, before)
        expect_mirror(d.source, mirror)
        archived = set().union(*(inodes(os.path.join(d.destination, a)) for a in ("__changed", "__removed")))
        expect(not archived & inodes(mirror), "an archived file shares its inode with the mirror")
    expect(os.stat(d.mirrored("f")).st_nlink == 2, "the changed group is not one file in the mirror")
    held, stamps = inodes(mirror), [os.listdir(os.path.join(d.destination, a)) for a in ("__changed", "__removed")]
    d.clean_rerun(before)
    expect(inodes(mirror) == held, "a clean rerun replaced mirror files")
    expect([os.listdir(os.path.join(d.destination, a)) for a in ("__changed", "__removed")] == stamps,
           "a clean rerun archived something")


FULL_ONLY = ("append-only file in the mirror", "no space for the archive move")


def run(ferrovane, work, tier, _):
    cases = [(f"archive move fails: {name}", lambda w, f=fault: archive_move_fails(ferrovane, w, *f))
             for name, fault in ARCHIVE_FAULTS.items()]
    cases += [("two runs in one second", lambda w: runs_in_one_second(ferrovane, w)),
              ("config add and set during a run", lambda w: config_during_a_run(ferrovane, w)),
              ("hard links across folders", lambda w: hard_link_groups(ferrovane, w)),
              ("hard links across folders, a copy of its own refused",
               lambda w: hard_link_groups(ferrovane, w, refused=True))]
    if tier == "quick":
        cases = [c for c in cases if not c[0].endswith(FULL_ONLY)]
    def tidy(folder):
        subprocess.run(["chattr", "-R", "-a", folder], capture_output=True)
        shutil.rmtree(folder, ignore_errors=True)
    yield from run_cases("archives", cases, work, root_only=lambda name: "link" in name or "append-only" in name,
                         after=tidy)
