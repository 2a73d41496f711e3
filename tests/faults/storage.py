"""Storage faults: a destination that fills up or goes away mid-run, and sources that change while
they are copied. Each run ends as the failure rules say, and a later run completes the mirror with
nothing lost. (A destination that turns read-only under any call is the inject part's EROFS.)"""

import os
import shutil
import subprocess
import threading
import time

from faultkit import (Hooks, Mirrored, build, content, date_folders, expect, expect_clean_rerun, expect_mirror,
                      expect_no_temporaries, finish, log_since, log_size, mounted, read_configuration, remount,
                      run_cases, tail, tmpfs, versions, write)

NAME = "data"
TREE = {b"a": ("dir",), b"b": ("dir",), b"a/c": ("dir",), b"huge.bin": ("file", 96 << 20, 7),
        **{b"%s/f%02d" % (d, i): ("file", 40000 * (i + 1), i) for d in (b"a", b"b", b"a/c") for i in range(12)}}
NO_SPACE = b"No free space left at destination. Aborting backup."
UNMOUNTED = b"Destination volume unmounted unexpectedly!"


class Case:
    def __init__(self, ferrovane, work, options=(("moveChangedFiles", 1),)):
        self.ferrovane = ferrovane
        self.source = os.path.join(work, "src", NAME)
        self.mount = os.path.join(work, "mnt")
        self.destination = os.path.join(self.mount, "dest")
        self.options = options
        build(os.fsencode(self.source), TREE)

    def prepare(self, mirror_first):
        os.makedirs(self.destination, exist_ok=True)
        self.ferrovane.configure(self.destination, [self.source], self.options)
        if mirror_first:
            self.ferrovane.complete(self.destination)
        self.configuration = read_configuration(self.destination)

    def change_sources(self, removed=(b"b",)):
        """Changes huge.bin and every file of a, removes the folders named; returns the
        destination's versions, which the next run must keep."""
        for rel, kind in TREE.items():
            if kind[0] == "file" and (rel.startswith(b"a/") or rel == b"huge.bin"):
                write(os.path.join(os.fsencode(self.source), rel), content(kind[1] + 1, kind[2] + 100), 2_000_000_000)
        for folder in removed:
            shutil.rmtree(os.path.join(os.fsencode(self.source), folder))
        date_folders(self.source)
        return versions(self.destination)

    def held(self, moment, pattern):
        """A run held at moment (an item whose path holds pattern), and its hooks."""
        hooks = Hooks(self.mount + "-hooks")
        return self.ferrovane.start_held(self.destination, hooks, moment, pattern), hooks

    def finish(self, before):
        expect_no_temporaries(self.destination)
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], before, self.configuration)


# name: (mirrored before, source folders removed, the limit put on the disk from (bytes, inodes) used)
FULL = {"full at the start": (False, (), lambda used, inodes: "size=2m"),
        "full in a large file": (True, (), lambda used, inodes: f"size={used + (8 << 20)}"),
        "full in the cleanup pass": (True, (b"b", b"a/c"), lambda used, inodes: f"nr_inodes={inodes + 3}")}


def fills(case, mirrored, removed, limit):
    """The run passes the free-space check on a roomy disk; then, before it writes, the limit leaves
    too little room, so that the disk fills in the middle of the run."""
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=mirrored)
        before = case.change_sources(removed) if mirrored else {}
        offset = log_size(case.ferrovane)
        process, hooks = case.held("space-checked", os.fsencode(case.destination))
        try:
            st = os.statvfs(case.mount)
            used = ((st.f_blocks - st.f_bfree) * st.f_frsize, st.f_files - st.f_ffree)
            expect(remount(case.mount, limit(*used)), "could not limit the file system")
        finally:
            hooks.release("space-checked")
        r = finish(process)
        expect(r.returncode == 255 and NO_SPACE in r.stdout + r.stderr + log_since(case.ferrovane, offset),
               f"expected exit 255 with {NO_SPACE!r}: {tail(r)}")
        remount(case.mount, "size=400m,nr_inodes=100000")
        case.finish(before)


def held_through_unmount(case, mount_point):
    """A run held between two files of a changed folder while mount_point is unmounted, until the
    run has seen it go; the run's result and what it logged."""
    offset = log_size(case.ferrovane)
    process, hooks = case.held("between-files", b"/data/a/")
    try:
        hooks.arm("unmount-seen", os.fsencode(mount_point), hold=False)
        subprocess.run(["umount", "-l", mount_point], check=True)
        hooks.wait("unmount-seen", process)
    finally:
        hooks.release("between-files")
    r = finish(process)
    return r, r.stdout + r.stderr + log_since(case.ferrovane, offset)


def unmounted_mid_run(case):
    """The destination is a bind mount of a folder on a tmpfs, unmounted mid-run."""
    with tmpfs(case.mount + "-backing", "size=1g") as backing:
        real = os.path.join(backing, "dest")
        os.makedirs(real)
        with mounted(["mount", "--bind", real, case.destination], case.destination):
            case.prepare(mirror_first=True)
            before = case.change_sources()
            r, said = held_through_unmount(case, case.destination)
            expect(r.returncode == 255 and UNMOUNTED in said, f"expected 255 with {UNMOUNTED!r}: {tail(r)}")
        with mounted(["mount", "--bind", real, case.destination], case.destination):
            case.finish(before)


def unmount_of_a_name_prefix(case):
    """Unmounting /…/mnt must not cancel a run to /…/mnt2/dest: mount points match by whole
    components."""
    neighbour = case.mount.rstrip("/")
    case.mount = neighbour + "2"
    case.destination = os.path.join(case.mount, "dest")
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        before = case.change_sources(removed=())
        with tmpfs(neighbour, "size=1m"):
            r, said = held_through_unmount(case, neighbour)
        expect(r.returncode == 0 and UNMOUNTED not in said, f"the run to {case.destination} stopped: {tail(r)}")
        case.finish(before)


def source_changes_while_copied(ferrovane, work, change):
    """The run is held after the first chunk of the large file's data while the file changes."""
    case = Case(ferrovane, work)
    case.mount = work
    case.destination = os.path.join(work, "dest")
    case.prepare(mirror_first=False)
    process, hooks = case.held("data-copy-under-way", b"/huge.bin")
    try:
        change(os.path.join(case.source, "huge.bin"))
    finally:
        hooks.release("data-copy-under-way")
    r = finish(process)
    expect(r.returncode in (0, 255), f"run crashed: {tail(r)}")
    case.finish({})


def grow(path):
    with open(path, "ab") as f:
        f.write(content(3 << 20, 9))


def replace(path):
    write(path + ".new", content(5000, 10))
    os.rename(path + ".new", path)


OUTSIDE_MARK = b"OUTSIDE THE SOURCE "


def folder_swapped_for_a_link(ferrovane, work, runs=6):
    """While runs go on, a source folder keeps being swapped for a link to a folder outside the
    source that holds files of the same names. No byte from outside may reach the destination;
    once the swapping stops, a run completes the mirror."""
    names = [b"f%03d" % i for i in range(150)]
    d = Mirrored(ferrovane, os.fsencode(work), {b"a": ("dir",), **{b"a/" + n: ("file", 3000, i) for i, n in enumerate(names)},
                                                b"b": ("dir",), b"b/kept": ("file", 10, 1)}, (("maxThreads", 4),), False)
    source, destination, outside = d.source, d.destination, os.path.join(os.fsencode(work), b"outside")
    os.makedirs(outside)
    for n in names:
        write(os.path.join(outside, n), OUTSIDE_MARK * 200)
    folder, parked = os.path.join(source, b"a"), os.path.join(os.fsencode(work), b"a.parked")
    stop = threading.Event()

    def swap():
        while not stop.is_set():
            os.rename(folder, parked)
            os.symlink(outside, folder)
            time.sleep(0.0005)
            os.unlink(folder)
            os.rename(parked, folder)
            time.sleep(0.0005)

    swapper = threading.Thread(target=swap)
    swapper.start()
    try:
        for _ in range(runs):
            r = ferrovane.run(destination)
            expect(r.returncode in (0, 255), f"run crashed: {tail(r)}")
    finally:
        stop.set()
        swapper.join()
    for root, dirs, files in os.walk(destination):
        for n in files:
            path = os.path.join(root, n)
            if not os.path.islink(path):
                with open(path, "rb") as f:
                    expect(OUTSIDE_MARK not in f.read(), f"{path!r} holds data from outside the source")
    ferrovane.complete(destination)
    expect_mirror(source, d.mirror)
    expect_no_temporaries(destination)


SOURCE_CHANGES = {"truncated": lambda path: os.truncate(path, 1000), "grown": grow, "replaced": replace, "removed": os.unlink}


def run(ferrovane, work, *_):
    cases = [("source " + name, lambda w, c=change: source_changes_while_copied(ferrovane, w, c))
             for name, change in SOURCE_CHANGES.items()]
    cases.append(("source folder swapped for a link during the walk", lambda w: folder_swapped_for_a_link(ferrovane, w)))
    cases += [(name, lambda w, f=full: fills(Case(ferrovane, w), *f)) for name, full in FULL.items()]
    cases += [(name, lambda w, b=body: b(Case(ferrovane, w))) for name, body in
              (("unmounted mid-run", unmounted_mid_run), ("unmount of a name prefix", unmount_of_a_name_prefix))]
    yield from run_cases("storage", cases, work, root_only=lambda name: not name.startswith("source"),
                         why="needs the superuser to mount", after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
