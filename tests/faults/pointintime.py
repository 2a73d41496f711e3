"""Any complete run is a point in time. Five runs change, remove, re-add and rename files, one of
them with archiving off; a copy of the source is taken right after each. Restoring each run's
state gives exactly that copy, byte for byte and by rsync, except the files whose earlier bytes
the run without archiving dropped or whose mirror copy was damaged: those are named, and the exit
status says so. A source deleted whole comes back at its place as the last run left it. From an
exFAT destination, which keeps no owners and modes, a restore brings back the source's owners,
modes and attributes."""

import os
import shutil
import subprocess

from faultkit import Mirrored, expect, expect_status, mirror_differences, next_second, recorded, run_cases, tail, write
from filesystems import EXFAT

NAME = "data"
ARCHIVING = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"))
TREE = {b"a.txt": ("file", 3000, 1), b"b.txt": ("file", 10, 2), b"c.txt": ("file", 700, 3),
        b"sub": ("dir",), b"sub/d.txt": ("file", 5000, 4), b"sub/e.txt": ("file", 60, 5),
        b"sub/f.txt": ("file", 1, 6), b"gone": ("dir",), b"gone/g.txt": ("file", 70, 7), b"empty": ("dir",),
        b"private": ("dir",), b"private/key": ("file", 33, 8), b"link": ("link", b"a.txt")}
GONE = b"ferrovane: error: not restored: bytes gone: "


class History(Mirrored):
    """A source and its destination, backed up run after run, with a copy of the source and the
    run's stamp kept after each."""

    def __init__(self, ferrovane, work, destination, tree):
        super().__init__(ferrovane, work, tree, ARCHIVING, first_run=False, destination=destination)
        os.chmod(self.path("private"), 0o700)
        os.chmod(self.path("private/key"), 0o600)
        os.setxattr(self.path("private/key"), "user.note", b"kept in the record")
        self.stamps, self.copies, self.status = [], [], 0

    def run(self):
        next_second()
        r, stamp = recorded(self.destination, lambda: self.ferrovane.run(self.destination))
        expect(r.returncode == self.status, f"run {len(self.stamps)} exit {r.returncode}: {tail(r)}")
        self.stamps.append(stamp)
        copy = os.path.join(self.work, "copies", str(len(self.copies)))
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        subprocess.run(["cp", "-a", os.path.dirname(self.source), copy], check=True)
        self.copies.append(os.path.join(copy, NAME))

    def restore(self, stamp, *args):
        return self.ferrovane.command("restore", self.destination, self.source, "--at", stamp, *args)


def expect_state(copy, restored, gone=()):
    diff = [line for line in mirror_differences(copy, restored).splitlines()
            if not any(line.endswith(" " + name) for name in gone)]
    expect(not diff, f"{restored} differs from the run's state:\n" + "\n".join(diff[:20]))
    for name in gone:
        expect(not os.path.lexists(os.path.join(restored, name)), f"{name} was restored from other bytes")


def every_run(ferrovane, work):
    h = History(ferrovane, work, os.path.join(work, "dest"), TREE)
    before = ferrovane.command("ls", h.destination, h.source)
    expect(before.returncode == 1 and b"no record" in before.stderr, f"ls without records: {tail(before)}")
    s = h.source
    h.run()
    write(os.path.join(s, "a.txt"), b"a, second")
    os.unlink(os.path.join(s, "b.txt"))
    os.rename(os.path.join(s, "c.txt"), os.path.join(s, "sub", "c renamed.txt"))
    write(os.path.join(s, "new.txt"), b"new")
    h.run()
    write(os.path.join(s, "b.txt"), b"b is back, longer")
    write(os.path.join(s, "sub", "d.txt"), b"d, second")
    shutil.rmtree(os.path.join(s, "gone"))
    h.run()
    # Without archiving, the earlier bytes of e.txt and f.txt leave the destination.
    ferrovane.configure(h.destination, [], (("moveChangedFiles", "no"), ("moveDeletedFiles", "no")))
    write(os.path.join(s, "sub", "e.txt"), b"e, second")
    os.unlink(os.path.join(s, "sub", "f.txt"))
    h.run()
    ferrovane.configure(h.destination, [], ARCHIVING)
    write(os.path.join(s, "a.txt"), b"a, third")
    os.chmod(os.path.join(s, "new.txt"), 0o640)
    h.run()

    for i, stamp in enumerate(h.stamps):
        lost = [b"sub/e.txt", b"sub/f.txt"] if i < 3 else []
        out = os.path.join(work, "out", str(i))
        os.makedirs(out)
        r = h.restore(stamp, "--to", out)
        restored = os.path.join(out, NAME)
        named = sorted(line[len(GONE):] for line in r.stderr.splitlines() if line.startswith(GONE))
        expect(named == sorted(os.path.join(os.fsencode(restored), n) for n in lost),
               f"run {i}: named as gone {named}, expected {lost}: {tail(r)}")
        expect(r.returncode == (1 if lost else 0), f"run {i}: restore exit {r.returncode}: {tail(r)}")
        expect_state(h.copies[i], restored, [n.decode() for n in lost])

    listed = ferrovane.command("ls", h.destination, s, "--at", h.stamps[1])
    names = sorted(line.split()[-1] for line in listed.stdout.decode().splitlines()[1:] if not line.startswith("link"))
    expect(names == ["a.txt", "empty", "gone", "new.txt", "private", "sub"], f"ls --at of run 1: {tail(listed)}")

    # The whole source, deleted, comes back at its place as the last run left it.
    shutil.rmtree(s)
    r = h.restore(h.stamps[-1])
    expect(r.returncode == 0, f"restore to the original place exit {r.returncode}: {tail(r)}")
    expect_state(h.copies[-1], s)

    # A mirror copy damaged in place, its size and time kept, is named, never restored as the file.
    damaged = os.path.join(h.destination, NAME, "sub", "d.txt")
    st = os.stat(damaged)
    with open(damaged, "r+b") as f:
        f.write(b"X")
    os.utime(damaged, ns=(st.st_atime_ns, st.st_mtime_ns))
    out = os.path.join(work, "out", "damaged")
    r = h.restore(h.stamps[-1], "--to", out)
    expect(r.returncode == 1 and GONE + os.fsencode(os.path.join(out, NAME, "sub", "d.txt")) in r.stderr,
           f"restore from a damaged mirror: {tail(r)}")
    expect_state(h.copies[-1], os.path.join(out, NAME), ["sub/d.txt"])

    # Into a folder holding another a.txt: nothing is written unless it is replaced.
    first = os.path.join(work, "out", "0", NAME)
    write(os.path.join(first, "a.txt"), b"mine")
    r = h.restore(h.stamps[0], "--to", os.path.dirname(first))
    expect(r.returncode == 1 and b"Conflict: " in r.stdout, f"restore over a conflict: {tail(r)}")
    expect(open(os.path.join(first, "a.txt"), "rb").read() == b"mine", "a conflict was overwritten")
    r = h.restore(h.stamps[0], "--to", os.path.dirname(first), "--replace")
    expect_state(h.copies[0], first, ["sub/e.txt", "sub/f.txt"])


def from_exfat(ferrovane, work):
    with EXFAT.mounted(work) as mnt:
        tree = {k: v for k, v in TREE.items() if v[0] != "link"}
        h = History(ferrovane, work, os.path.join(mnt, "dest"), tree)
        h.status = 1  # a warning: exFAT keeps no attributes
        os.chown(os.path.join(h.source, "private", "key"), 65534, 65534)
        os.chmod(os.path.join(h.source, "sub", "d.txt"), 0o4751)
        h.run()
        key = os.stat(os.path.join(h.destination, NAME, "private", "key"))
        expect(key.st_mode & 0o777 != 0o600, "the exFAT mirror kept the mode: the case proves nothing")
        out = os.path.join(work, "out")
        os.makedirs(out)
        expect_status(h.restore(h.stamps[0], "--to", out), 0, "the restore from exFAT")
        expect_state(h.copies[0], os.path.join(out, NAME))


def run(ferrovane, work, *_):
    exfat = "restore --at from an exFAT destination brings back owners, modes and attributes"
    yield from run_cases("pointintime", [
        ("five runs, one without archiving: each run's state restored exactly, lost files named",
         lambda w: every_run(ferrovane, w)), (exfat, lambda w: from_exfat(ferrovane, w))],
        work, root_only=lambda name: name == exfat, why="needs the superuser to mount images",
        after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
