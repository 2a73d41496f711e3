"""Sources the run cannot fully use: folders and files an ordinary user may not read keep their
mirror whole; an append-only source file is mirrored on every change; a file with an ACL is not
copied again and again when ACLs are not cloned."""

import os
import subprocess

from faultkit import (FS_APPEND_FL, Ferrovane, Mirrored, build, content, expect, expect_clean_rerun, expect_kept,
                      expect_mirror, expect_status, inode_flags, log_since, log_size, run_cases, tail, version,
                      versions)

NAME = "data"
TREE = {b"open": ("dir",), b"open/f": ("file", 2000, 1), b"open/closed": ("dir",),
        b"open/closed/g": ("file", 3000, 2), b"open/closed/deeper": ("dir",), b"open/closed/deeper/h": ("file", 10, 3),
        b"closed": ("dir",), b"closed/a": ("file", 5000, 4), b"closed/sub": ("dir",), b"closed/sub/b": ("file", 70, 5),
        b"unreadable": ("file", 4000, 6), b"plain": ("file", 100, 7)}
UNREADABLE = (b"closed", b"open/closed", b"unreadable")  # mode 000 for the second run


def as_nobody(ferrovane, work):
    """The same executable run by the user nobody, with a home and log of its own."""
    home = os.path.join(work, "home")
    os.makedirs(home)
    os.chown(home, 65534, 65534)
    return Ferrovane(ferrovane.executable, os.path.join(home, "Ferrovane.log"),
                     prefix=("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"), HOME=home)


def owned_by_nobody(path):
    for folder, dirs, names in os.walk(path):
        for name in [b""] + dirs + names:
            os.chown(os.path.join(folder, name), 65534, 65534, follow_symlinks=False)


def reachable(work):
    """Every folder above work may be passed through (but not written) by other users."""
    path = os.path.abspath(work)
    while path != "/":
        os.chmod(path, os.stat(path).st_mode | 0o111)
        path = os.path.dirname(path)


def unreadable_source(ferrovane, work, archiving):
    """Folders (at the top and below a readable one) and a file that the running user may not
    read: their mirror stays whole, in place, and the run reports errors."""
    reachable(work)
    user = as_nobody(ferrovane, work)
    source, destination = os.path.join(os.fsencode(work), b"src", NAME.encode()), os.path.join(work, "dest")
    build(source, TREE)
    os.makedirs(destination)
    owned_by_nobody(os.path.join(os.fsencode(work), b"src"))
    owned_by_nobody(os.fsencode(destination))
    user.configure(destination, [os.fsdecode(source)], (("moveDeletedFiles", "yes" if archiving else "no"),
                                                       ("moveChangedFiles", "yes" if archiving else "no")))
    user.complete(destination)
    before = versions(destination)
    for rel in UNREADABLE:
        os.chmod(os.path.join(source, rel), 0)
    try:
        r = user.run(destination)
    finally:
        for rel in UNREADABLE:
            os.chmod(os.path.join(source, rel), 0o755 if os.path.isdir(os.path.join(source, rel)) else 0o644)
    root = os.path.realpath(os.fsencode(destination))
    moved = sorted(rel for rel, old in before.items() if version(root, rel) != old)
    expect(not moved, f"{len(moved)} mirrored files left their place: {moved[:5]}")
    expect(r.returncode == 255, f"the run reported no error ({r.returncode}): {tail(r)}")
    expect_clean_rerun(user, destination, [os.fsdecode(source)], before)


def append_only_source(ferrovane, work):
    """A log-like file the system only lets grow is mirrored after every change, with its flag."""
    d = Mirrored(ferrovane, work, {b"app.log": ("file", 1000, 1)}, (("moveChangedFiles", "yes"),), first_run=False)
    source, destination, log = d.source, d.destination, d.path("app.log")
    expect(inode_flags(log, add=FS_APPEND_FL) is not None, "the source file cannot be made append-only")
    try:
        ferrovane.complete(destination)
        for generation in range(2):
            with open(log, "ab") as f:
                f.write(content(500, generation))
            inode_flags(log, remove=FS_APPEND_FL)  # the flag forbids setting the date, not the growth
            os.utime(log, (2_000_000_000 + generation * 100,) * 2)
            inode_flags(log, add=FS_APPEND_FL)
            before = versions(destination)
            expect_status(ferrovane.run(destination), 0, f"run {generation + 2}")
            expect_mirror(source, d.mirror)
            expect_kept(destination, before)
            expect((inode_flags(os.path.join(d.mirror, "app.log")) or 0) & FS_APPEND_FL,
                   "the mirror's copy lost the append-only flag")
    finally:
        subprocess.run(["chattr", "-R", "-a", work], capture_output=True)


def acl_without_acl_cloning(ferrovane, work, ignore_attribute_changes):
    """With ACLs not cloned, a file with an ACL is not taken for changed on every run, whether
    attribute changes count or not."""
    d = Mirrored(ferrovane, work, {b"f": ("file", 1000, 1), b"g": ("file", 10, 2)},
                 (("disableACLClone", "yes"), ("ignoreFileFlagChanges", ignore_attribute_changes)), first_run=False)
    subprocess.run(["setfacl", "-m", "u:nobody:r", d.path("f")], check=True)
    ferrovane.complete(d.destination)
    offset = log_size(ferrovane)
    ferrovane.complete(d.destination)
    log = log_since(ferrovane, offset)
    expect(b"(0 items changed)" in log, f"the unchanged tree was copied again: {log[-300:]}")


def run(ferrovane, work, *_):
    cases = [*[(f"unreadable folders and file as an ordinary user, archiving {'on' if on else 'off'}",
                lambda w, a=on: unreadable_source(ferrovane, w, a)) for on in (False, True)],
             ("append-only source file changed twice", lambda w: append_only_source(ferrovane, w)),
             *[(f"ACL on a source file, ACL cloning off, ignoreFileFlagChanges {ignore}",
                lambda w, i=ignore: acl_without_acl_cloning(ferrovane, w, i)) for ignore in ("yes", "no")]]
    yield from run_cases("access", cases, work, root_only=lambda name: True,
                         why="needs the superuser to change users and flags")
