"""Storage faults: a destination that fills up or goes away mid-run, and sources that change while
they are copied. Each run ends as the failure rules say, and a later run completes the mirror with
nothing lost. (A destination that turns read-only under any call is the inject part's EROFS.)"""

import os
import shutil
import subprocess
import threading
import time

from faultkit import (run_cases, Hooks, build, content, expect, expect_configuration,
                      expect_kept, expect_mirror, expect_no_temporaries, log_since, log_size, read_configuration,
                      remount, tail, tmpfs, unmount, versions)

NAME = "data"
TREE = {b"a": ("dir",), b"b": ("dir",), b"a/c": ("dir",), b"huge.bin": ("file", 96 << 20, 7),
        **{b"%s/f%02d" % (d, i): ("file", 40000 * (i + 1), i) for d in (b"a", b"b", b"a/c") for i in range(12)}}
NO_SPACE = b"No free space left at destination. Aborting backup."
UNMOUNTED = b"Destination volume unmounted unexpectedly!"


def usage(path):
    st = os.statvfs(path)
    return (st.f_blocks - st.f_bfree) * st.f_frsize, st.f_files - st.f_ffree


class Case:
    def __init__(self, ferrovane, work, options=()):
        self.ferrovane = ferrovane
        self.source = os.path.join(work, "src", NAME)
        self.mount = os.path.join(work, "mnt")
        self.destination = os.path.join(self.mount, "dest")
        self.options = options
        build(os.fsencode(self.source), TREE)

    def prepare(self, mirror_first):
        os.makedirs(self.destination)
        self.ferrovane.configure(self.destination, [self.source], self.options)
        if mirror_first:
            self.ferrovane.complete(self.destination)
        self.configuration = read_configuration(self.destination)

    def change_sources(self, removed=(b"b",), generation=0):
        """Changes huge.bin and every file of a (each generation differently), removes the folders
        named; returns the destination's versions, which the next run must keep."""
        for rel, kind in TREE.items():
            path = os.path.join(os.fsencode(self.source), rel)
            if kind[0] == "file" and (rel.startswith(b"a/") or rel == b"huge.bin"):
                with open(path, "wb") as f:
                    f.write(content(kind[1] + 1 + generation, kind[2] + 100 + generation))
                os.utime(path, (2_000_000_000 + 100 * generation,) * 2)
        for folder in removed:
            shutil.rmtree(os.path.join(os.fsencode(self.source), folder))
        for folder, _, _ in os.walk(self.source):
            os.utime(folder, (1_500_000_000, 1_500_000_000))
        return versions(self.destination)

    def failed_run(self, message):
        r = self.ferrovane.run(self.destination)
        with open(self.ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
            log = f.read()
        expect(r.returncode == 255 and message in r.stdout + r.stderr + log, f"expected exit 255 with {message!r}: {tail(r)}")

    def finish(self, before):
        expect_no_temporaries(self.destination)
        expect_kept(self.destination, before)
        expect_configuration(self.destination, self.configuration)
        self.ferrovane.complete(self.destination)
        expect_mirror(self.source, os.path.join(self.destination, NAME))
        expect_kept(self.destination, before)
        expect_no_temporaries(self.destination)
        expect_configuration(self.destination, self.configuration)


def fills_after_the_space_check(case, shrink):
    """The run passes the free-space check on a roomy disk; then, before it writes, shrink() leaves
    too little room, so that the disk fills in the middle of the run."""
    process, hooks = held_run(case, "space-checked", os.fsencode(case.destination), case.mount + "-hooks")
    try:
        shrink()
    finally:
        hooks.release("space-checked")
    out, err = process.communicate(timeout=120)
    with open(case.ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
        log = f.read()
    expect(process.returncode == 255 and NO_SPACE in out + err + log,
           f"expected exit 255 with {NO_SPACE!r}, got {process.returncode}: {(out + err)[-600:]}")


def full_at_start(case):
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=False)
        fills_after_the_space_check(case, lambda: expect(remount(case.mount, "size=2m"), "could not shrink"))
        expect_no_temporaries(case.destination)
        remount(case.mount, "size=400m")
        case.finish({})


def full_in_a_large_file(case):
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        before = case.change_sources(removed=())
        used, _ = usage(case.mount)
        fills_after_the_space_check(case, lambda: expect(remount(case.mount, f"size={used + (8 << 20)}"),
                                                         "could not shrink the file system"))
        remount(case.mount, "size=400m")
        case.finish(before)


def full_in_the_cleanup(case):
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        before = case.change_sources(removed=(b"b", b"a/c"))
        _, inodes = usage(case.mount)
        expect(remount(case.mount, f"nr_inodes={inodes + 3}"), "could not limit the inodes")
        case.failed_run(NO_SPACE)
        remount(case.mount, "nr_inodes=100000")
        case.finish(before)


def held_run(case, moment, pattern, hooks_folder):
    """A run of case held at moment (an item whose path holds pattern), and its hooks."""
    hooks = Hooks(hooks_folder)
    return case.ferrovane.start_held(case.destination, hooks, moment, pattern), hooks


def unmounted_mid_run(case):
    """The destination is a bind mount of a folder on a tmpfs, unmounted while the run is held
    between two files of a changed folder until the run has seen it go."""
    backing = os.path.join(case.mount + "-backing")
    with tmpfs(backing, "size=1g"):
        real = os.path.join(backing, "dest")
        os.makedirs(real)
        os.makedirs(case.destination)
        subprocess.run(["mount", "--bind", real, case.destination], check=True)
        try:
            case.ferrovane.configure(case.destination, [case.source], case.options)
            case.ferrovane.complete(case.destination)
            case.configuration = read_configuration(case.destination)
            before = case.change_sources()
            offset = log_size(case.ferrovane)
            process, hooks = held_run(case, "between-files", b"/data/a/", case.mount + "-hooks")
            try:
                hooks.arm("unmount-seen", os.fsencode(case.destination), hold=False)
                subprocess.run(["umount", "-l", case.destination], check=True)
                hooks.wait("unmount-seen", process)
            finally:
                hooks.release("between-files")
            out, _ = process.communicate(timeout=120)
            out += log_since(case.ferrovane, offset)
            expect(process.returncode == 255 and UNMOUNTED in out,
                   f"expected 255 with {UNMOUNTED!r}, got {process.returncode}: {out[-600:]}")
        finally:
            unmount(case.destination)
        subprocess.run(["mount", "--bind", real, case.destination], check=True)
        try:
            case.finish(before)
        finally:
            unmount(case.destination)


def unmount_of_a_name_prefix(case):
    """Unmounting /…/mnt must not cancel a run to /…/mnt2/dest: mount points match by whole
    components. The run is held until it has seen the unmount."""
    neighbour = case.mount.rstrip("/")
    case.mount = neighbour + "2"
    case.destination = os.path.join(case.mount, "dest")
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        before = case.change_sources(removed=())
        with tmpfs(neighbour, "size=1m"):
            process, hooks = held_run(case, "between-files", b"/data/a/", case.mount + "-hooks")
            hooks.arm("unmount-seen", os.fsencode(neighbour), hold=False)
        try:
            hooks.wait("unmount-seen", process)
        finally:
            hooks.release("between-files")
        out, err = process.communicate(timeout=120)
        expect(process.returncode == 0 and UNMOUNTED not in out,
               f"the run to {case.destination} stopped ({process.returncode}): {(out + err)[-400:]}")
        case.finish(before)


def source_changes_while_copied(ferrovane, work, change):
    """The run is held after the first chunk of the large file's data while the file changes."""
    case = Case(ferrovane, work)
    case.mount = work
    case.destination = os.path.join(work, "dest")
    case.prepare(mirror_first=False)
    huge = os.path.join(case.source, "huge.bin")
    process, hooks = held_run(case, "data-copy-under-way", b"/huge.bin", os.path.join(work, "hooks"))
    try:
        change(huge)
    finally:
        hooks.release("data-copy-under-way")
    out, _ = process.communicate(timeout=120)
    expect(process.returncode in (0, 255), f"run crashed: {process.returncode}")
    case.finish({})


def truncate(path):
    os.truncate(path, 1000)


def grow(path):
    with open(path, "ab") as f:
        f.write(content(3 << 20, 9))


def replace(path):
    with open(path + ".new", "wb") as f:
        f.write(content(5000, 10))
    os.rename(path + ".new", path)


OUTSIDE_MARK = b"OUTSIDE THE SOURCE "


def folder_swapped_for_a_link(ferrovane, work, runs=6):
    """While runs go on, a source folder keeps being swapped for a link to a folder outside the
    source that holds files of the same names. No byte from outside may reach the destination;
    once the swapping stops, a run completes the mirror."""
    names = [b"f%03d" % i for i in range(150)]
    source = os.path.join(os.fsencode(work), b"src", NAME.encode())
    build(source, {b"a": ("dir",), **{b"a/" + n: ("file", 3000, i) for i, n in enumerate(names)},
                   b"b": ("dir",), b"b/kept": ("file", 10, 1)})
    outside = os.path.join(os.fsencode(work), b"outside")
    os.makedirs(outside)
    for n in names:
        with open(os.path.join(outside, n), "wb") as f:
            f.write(OUTSIDE_MARK * 200)
    destination = os.path.join(os.fsencode(work), b"dest")
    os.makedirs(destination)
    ferrovane.configure(destination, [source], (("maxThreads", 4),))
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
    expect_mirror(source, os.path.join(destination, NAME.encode()))
    expect_no_temporaries(destination)


SOURCE_CHANGES = {"truncated": truncate, "grown": grow, "replaced": replace, "removed": os.unlink}


def run(ferrovane, work):
    cases = [("source " + name, lambda w, c=change: source_changes_while_copied(ferrovane, w, c))
             for name, change in SOURCE_CHANGES.items()]
    cases.append(("source folder swapped for a link during the walk", lambda w: folder_swapped_for_a_link(ferrovane, w)))
    root_cases = {"full at the start": full_at_start, "full in a large file": full_in_a_large_file,
                  "full in the cleanup pass": full_in_the_cleanup, "unmounted mid-run": unmounted_mid_run,
                  "unmount of a name prefix": unmount_of_a_name_prefix}
    for name, body in root_cases.items():
        options = (("moveChangedFiles", 1),)
        cases.append((name, lambda w, b=body: b(Case(ferrovane, w, options))))
    yield from run_cases("storage", cases, work, root_only=lambda name: not name.startswith("source"),
                         why="needs the superuser to mount", after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
