"""Escapes: symbolic links planted inside the destination, where the run will enter a folder,
replace a file or move items into an archive, never let the run write, remove, move or change
metadata outside the destination. Run as the superuser, who could do all of that."""

import os
import shutil
import subprocess

from faultkit import (FS_IMMUTABLE_FL, Mirrored, build, content, expect, expect_mirror, inode_flags, run_cases,
                      tree_state, write)

TREE = {b"sub": ("dir",), b"sub/f": ("file", 3000, 1), b"sub/gone": ("file", 10, 2), b"g": ("file", 2000, 3),
        b"h": ("file", 10, 4)}
OUTSIDE = {b"sub": ("dir",), b"sub/f": ("file", 100, 5), b"sub/gone": ("file", 10, 6), b"f": ("file", 100, 7),
           b"g": ("file", 100, 8), b"gone": ("file", 10, 9), b"h": ("file", 10, 10)}


def lock_files(root, locked=True):
    """Makes every file below root immutable (or mutable again), so that an unlock that escaped
    the destination would show in the manifest."""
    for folder, _, names in os.walk(root):
        for name in names:
            inode_flags(os.path.join(folder, name), **{"add" if locked else "remove": FS_IMMUTABLE_FL})


def change_sources(source):
    for rel in (b"sub/f", b"g", b"h"):
        write(os.path.join(source, rel), content(5000, 11), 2_000_000_000)
    os.unlink(os.path.join(source, b"sub/gone"))


def plant(destination, rel, target):
    path = os.path.join(destination, rel)
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)
    os.symlink(target, path)


# name: (what is replaced by a link, relative to the destination; where the link points, in outside)
ATTACKS = {
    "folder the run enters": (b"data/sub", b"sub"),
    "file the run replaces": (b"data/g", b"g"),
    "changed-files archive": (b"__changed", b""),
    "removed-items archive": (b"__removed", b""),
    "mirror root of the source": (b"data", b""),
}


def attack(ferrovane, work, planted, target):
    d, outside = Mirrored(ferrovane, os.fsencode(work), TREE, (("moveChangedFiles", 1),)), os.fsencode(work) + b"/outside"
    build(outside, OUTSIDE)
    for archive in (b"__changed", b"__removed"):
        os.makedirs(os.path.join(d.destination, archive), exist_ok=True)
    change_sources(d.source)
    lock_files(outside)
    before = tree_state(outside)
    plant(d.destination, planted, os.path.join(outside, target))
    for _ in range(2):  # the second run meets whatever the first one left
        ferrovane.run(d.destination)
        after = tree_state(outside)
        changed = sorted(k for k in set(before) | set(after) if before.get(k) != after.get(k))
        expect(not changed, f"changed outside the destination: {changed}")


def destination_inside_the_source(ferrovane, work):
    """A destination inside a source is never walked: no backup/data/backup/… nesting, however
    many runs."""
    source = os.path.join(os.fsencode(work), b"data")
    destination = os.path.join(source, b"backup")
    build(source, {b"f": ("file", 3000, 1), b"sub": ("dir",), b"sub/g": ("file", 10, 2)})
    os.makedirs(destination)
    ferrovane.configure(destination, [source], (("moveChangedFiles", 1),))
    for attempt in ("first", "second"):
        r = ferrovane.run(destination)
        nested = os.path.join(destination, b"data", b"backup")
        expect(not os.path.lexists(nested), f"the {attempt} run copied the destination into itself")
        expect(r.returncode in (0, 255), f"{attempt} run crashed: {r.returncode}")
    ferrovane.complete(destination)
    expect_mirror(source, os.path.join(destination, b"data"), excluded=[b"backup"])


def run(ferrovane, work, *_):
    def tidy(folder):
        lock_files(os.path.join(folder, "outside"), locked=False)
        subprocess.run(["rm", "-rf", folder], check=True)

    inside = [("destination inside the source", lambda w: destination_inside_the_source(ferrovane, w))]
    attacks = [(name, lambda w, p=planted, t=target: attack(ferrovane, w, p, t))
               for name, (planted, target) in ATTACKS.items()]
    yield from run_cases("escapes", inside, os.path.join(work, "inside"), after=tidy)
    yield from run_cases("escapes", attacks, os.path.join(work, "attacks"), root_only=lambda name: True, after=tidy)
