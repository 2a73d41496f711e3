"""Change detection: a same-size save a moment after a backup, a change of mode or owner alone, and
an item that became another kind of item (both ways). After each, every earlier version is in the
mirror or an archive, and a clean run leaves the mirror equal to the source, modes and owners
included. (A source written while it is copied is the item-cloning test's, on exact and FAT times.)"""

import os
import pwd
import shutil
import subprocess

from faultkit import (FIXED_MTIME, Mirrored, content, expect, expect_clean_rerun, expect_kept, expect_mirror,
                      expect_status, log_since, log_size, mirror_differences, run_cases, versions, write)

NAME = Mirrored.NAME
SECOND = 1_000_000_000
SAVED = 1_500_000_000 * SECOND  # when the backed-up versions were saved
BOTH_ARCHIVES = (("moveChangedFiles", "yes"), ("moveDeletedFiles", "yes"))
OUTSIDE = b"outside the source"


class Destination(Mirrored):
    def __init__(self, ferrovane, work, tree, options=BOTH_ARCHIVES):
        super().__init__(ferrovane, os.fsencode(work), tree, options)

    def expect_equal(self, what):
        """The mirror equals the source after one run, every earlier version kept."""
        expect_kept(self.destination, self.before)
        diff = mirror_differences(self.source, self.mirror, folder_dates=True)
        expect(diff == "", f"{what}: the mirror differs after one run:\n{diff[:1500]}")

    def clean_rerun(self):
        """A clean run completes the mirror, and the one after it finds nothing left to do."""
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], self.before)
        expect_mirror(self.source, self.mirror, folder_dates=True)
        offset = log_size(self.ferrovane)
        self.ferrovane.complete(self.destination)
        expect(b"(0 items changed)" in log_since(self.ferrovane, offset), "a run after a clean run changed items again")


# ---- same-size saves

OFFSETS_NS = (1, 1_000_000, 400_000_000, 999_999_999, SECOND, 2 * SECOND, 3 * SECOND, 9 * SECOND)


def same_size_saves(ferrovane, work):
    """A file saved as "teh" and backed up, then saved as "the" 1 ns to 9 s later: each save is
    backed up by the next run."""
    tree = {b"f%d" % i: ("file", 4000, i) for i in range(len(OFFSETS_NS))}
    d = Destination(ferrovane, work, tree)
    for i in range(len(OFFSETS_NS)):
        os.utime(d.path(b"f%d" % i), ns=(SAVED, SAVED))
    ferrovane.complete(d.destination)
    d.before = versions(d.destination)
    for i, offset in enumerate(OFFSETS_NS):
        write(d.path(b"f%d" % i), content(4000, 100 + i))
        os.utime(d.path(b"f%d" % i), ns=(SAVED + offset,) * 2)
    ferrovane.complete(d.destination)
    d.expect_equal("same-size saves")
    d.clean_rerun()


# ---- mode and owner alone

def metadata_only(ferrovane, work):
    """A chmod of a file and of a folder (and as root a chown, a chgrp, a link's owner and a chmod
    of a file whose copy is immutable) reach the mirror in place: the mirror file is the same
    file, and nothing is archived."""
    tree = {b"private": ("file", 3000, 1), b"folder": ("dir",), b"folder/g": ("file", 100, 2),
            b"owned": ("file", 50, 3), b"grouped": ("file", 60, 4), b"link": ("link", b"private"),
            b"unlocked": ("file", 70, 5)}
    d = Destination(ferrovane, work, tree)
    inodes = {rel: os.lstat(os.path.join(d.mirror, rel)).st_ino for rel in tree}
    os.chmod(d.path(b"private"), 0o600)
    os.chmod(d.path(b"folder"), 0o700)
    locked = os.path.join(d.mirror, b"unlocked")
    if os.geteuid() == 0:
        nobody = pwd.getpwnam("nobody")
        os.chown(d.path(b"owned"), nobody.pw_uid, -1)
        os.chown(d.path(b"grouped"), -1, nobody.pw_gid)
        os.lchown(d.path(b"link"), nobody.pw_uid, nobody.pw_gid)
        # The copy of a file that was immutable when it was backed up, and is no longer.
        if subprocess.run(["chattr", "+i", locked], capture_output=True).returncode == 0:
            os.chmod(d.path(b"unlocked"), 0o640)
    r = ferrovane.run(d.destination)
    flags = subprocess.run(["lsattr", "-d", locked], capture_output=True).stdout.split(b" ")[0]
    subprocess.run(["chattr", "-i", locked], capture_output=True)  # whatever happened, the folder can go
    expect_status(r, 0, "the run")
    expect(b"i" not in flags, "the copy is still immutable")
    d.expect_equal("mode and owner")
    for rel, inode in inodes.items():
        expect(os.lstat(os.path.join(d.mirror, rel)).st_ino == inode, f"{rel!r} was copied, not updated in place")
    expect(not os.path.exists(os.path.join(d.destination, b"__changed")), "identical bytes were archived")
    d.clean_rerun()


# ---- one kind of item replaced by another

def make_folder(path):
    os.makedirs(os.path.join(path, b"inner"))
    write(os.path.join(path, b"inner", b"x"), b"new folder content")


# kind: (how the old item is described in a tree, how a new one is made)
KINDS = {"folder": (("dir",), make_folder), "file": (("file", 2000, 7), lambda path: write(path, b"new file")),
         "link": (("link", b"somewhere"), lambda path: os.symlink(b"elsewhere", path)), "fifo": (None, os.mkfifo)}


def replaced(ferrovane, work, replacements, options=BOTH_ARCHIVES):
    """Every kind replaced by each of replacements, the new item dated as the one it replaced, so
    that only its kind tells them apart; returns the destination after one run."""
    tree = {}
    # The old links lead to a folder outside the source holding the names the new folders hold:
    # nothing may be read or written through the mirror's copy of such a link.
    outside = os.path.join(os.fsencode(work), b"outside")
    os.makedirs(os.path.join(outside, b"inner"))
    write(os.path.join(outside, b"inner", b"x"), OUTSIDE)
    pairs = [(old, new) for old in ("folder", "file", "link") for new in replacements if new != old]
    for old, new in pairs:
        rel = f"{old}-to-{new}".encode()
        tree[rel] = ("link", outside) if old == "link" else KINDS[old][0]
        if old == "folder":
            tree[rel + b"/kept"] = ("file", 500, len(tree))
            tree[rel + b"/sub"] = ("dir",)
            tree[rel + b"/sub/deeper"] = ("file", 70, len(tree))
    d = Destination(ferrovane, work, tree, options)
    for old, new in pairs:
        path = d.path(f"{old}-to-{new}".encode())
        if old == "folder":
            shutil.rmtree(path)
        else:
            os.unlink(path)
        KINDS[new][1](path)
        if new != "fifo":
            os.utime(path, ns=(FIXED_MTIME * SECOND,) * 2, follow_symlinks=False)
    # Deterministic where the copy threads are not: the decisions themselves never look below
    # the mirror's link (a dry run reports what a run would archive).
    r = ferrovane.command(d.destination, "-noUserNotifications", "--dry-run")
    through = [line for line in r.stdout.splitlines() if line.startswith(b"Would archive:") and b"link-to-folder/" in line]
    expect(not through, f"a run would archive through a mirror link: {through}")
    ferrovane.complete(d.destination)
    with open(os.path.join(outside, b"inner", b"x"), "rb") as f:
        expect(f.read() == OUTSIDE, "a run wrote through a mirror link")
    return d


def type_changes(ferrovane, work):
    """A folder, a file or a link replaced by another of them, with the default options (mv Photos
    /other; ln -s /other/Photos Photos): a folder goes to __removed, a file or link to __changed,
    and the new item is mirrored."""
    d = replaced(ferrovane, work, ("folder", "file", "link"), options=())
    d.expect_equal("kinds replaced")
    removed = os.path.join(d.destination, b"__removed")
    stamps = os.listdir(removed) if os.path.isdir(removed) else []
    for new in ("file", "link"):
        rel = os.path.join(NAME.encode(), f"folder-to-{new}".encode(), b"sub/deeper")
        expect(any(os.path.isfile(os.path.join(removed, s, rel)) for s in stamps),
               f"{rel!r} did not go to __removed with its folder")
    d.clean_rerun()


def replaced_by_fifos(ferrovane, work):
    """A FIFO is never backed up: a folder, file or link replaced by one is archived as removed."""
    d = replaced(ferrovane, work, ("fifo",))
    expect_kept(d.destination, d.before)
    fifos = [name for name in os.listdir(d.source) if name.endswith(b"-to-fifo")]
    left = [name for name in fifos if os.path.lexists(os.path.join(d.mirror, name))]
    expect(not left, f"the mirror still holds {left}")
    expect_mirror(d.source, d.mirror, excluded=fifos, folder_dates=True)


def links_pointed_elsewhere(ferrovane, work):
    """Links made anew a moment after the backup, to a target of another length or of the same:
    the mirror's links follow, and the old ones are archived."""
    tree = {b"longer": ("link", b"target-a"), b"same-length": ("link", b"target-a")}
    d = Destination(ferrovane, work, tree)
    for rel, target in ((b"longer", b"target-abc"), (b"same-length", b"target-b")):
        os.unlink(d.path(rel))
        os.symlink(target, d.path(rel))
        os.utime(d.path(rel), ns=((FIXED_MTIME + 1) * SECOND,) * 2, follow_symlinks=False)
    ferrovane.complete(d.destination)
    d.expect_equal("links pointed elsewhere")
    d.clean_rerun()


def run(ferrovane, work, *_):
    yield from run_cases("changes", [
        ("same-size saves 1 ns to 9 s after the backup", lambda w: same_size_saves(ferrovane, w)),
        ("mode, owner and group changed alone", lambda w: metadata_only(ferrovane, w)),
        ("folder, file and link each replaced by the others", lambda w: type_changes(ferrovane, w)),
        ("folder, file and link each replaced by a FIFO", lambda w: replaced_by_fifos(ferrovane, w)),
        ("links pointed elsewhere", lambda w: links_pointed_elsewhere(ferrovane, w))], work)
