"""Storage faults: a destination that fills up, goes away or turns read-only mid-run, and sources
that change while they are copied. Each run ends as the failure rules say, and a later run
completes the mirror with nothing lost."""

import ctypes
import os
import shutil
import subprocess
import time

from faultkit import (TEMPORARY_PREFIX, Failure, build, content, expect, expect_configuration, expect_kept,
                      expect_mirror, expect_no_temporaries, files_below, is_root, read_configuration, remount,
                      tail, tmpfs, unmount)

NAME = "data"
TREE = {b"a": ("dir",), b"b": ("dir",), b"a/c": ("dir",), b"huge.bin": ("file", 96 << 20, 7),
        **{b"%s/f%02d" % (d, i): ("file", 40000 * (i + 1), i) for d in (b"a", b"b", b"a/c") for i in range(12)}}
NO_SPACE = b"No free space left at destination. Aborting backup."
UNMOUNTED = b"Destination volume unmounted unexpectedly!"
MS_RDONLY, MS_REMOUNT, MS_BIND = 1, 32, 4096


def wait_for_copy(folder, process, timeout=20):
    """Returns once a temporary file shows that a copy into folder is under way."""
    end = time.monotonic() + timeout
    while time.monotonic() < end and process.poll() is None:
        try:
            if any(n.startswith(TEMPORARY_PREFIX) for n in os.listdir(os.fsencode(folder))):
                return True
        except FileNotFoundError:
            pass
    return False


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

    def change_sources(self, removed=(b"b",)):
        """Changes huge.bin and every file of a, removes the folders named; returns what the mirror
        must keep."""
        mirror = files_below(os.path.join(self.destination, NAME))
        expected = {}
        for rel, kind in TREE.items():
            path = os.path.join(os.fsencode(self.source), rel)
            if kind[0] == "file" and (rel.startswith(b"a/") or rel == b"huge.bin"):
                with open(path, "wb") as f:
                    f.write(content(kind[1] + 1, kind[2] + 100))
                os.utime(path, (2_000_000_000, 2_000_000_000))
                expected[os.fsdecode(rel)] = mirror[os.fsdecode(rel)]
        for folder in removed:
            shutil.rmtree(os.path.join(os.fsencode(self.source), folder))
            expected.update({r: d for r, d in mirror.items() if r.startswith(os.fsdecode(folder) + "/")})
        for folder, _, _ in os.walk(self.source):
            os.utime(folder, (1_500_000_000, 1_500_000_000))
        return expected

    def failed_run(self, message):
        r = self.ferrovane.run(self.destination)
        with open(self.ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
            log = f.read()
        expect(r.returncode == 255 and message in r.stdout + log, f"expected exit 255 with {message!r}: {tail(r)}")

    def finish(self, expected):
        expect_no_temporaries(self.destination)
        expect_kept(self.destination, NAME, expected)
        expect_configuration(self.destination, self.configuration)
        self.ferrovane.complete(self.destination)
        expect_mirror(self.source, os.path.join(self.destination, NAME))
        expect_kept(self.destination, NAME, expected)
        expect_no_temporaries(self.destination)
        expect_configuration(self.destination, self.configuration)


def full_at_start(case):
    with tmpfs(case.mount, "size=2m"):
        case.prepare(mirror_first=False)
        case.failed_run(NO_SPACE)
        expect_no_temporaries(case.destination)
        remount(case.mount, "size=400m")
        case.finish({})


def full_in_a_large_file(case):
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        expected = case.change_sources(removed=())
        used, _ = usage(case.mount)
        expect(remount(case.mount, f"size={used + (8 << 20)}"), "could not shrink the file system")
        case.failed_run(NO_SPACE)
        remount(case.mount, "size=400m")
        case.finish(expected)


def full_in_the_cleanup(case):
    with tmpfs(case.mount, "size=400m"):
        case.prepare(mirror_first=True)
        expected = case.change_sources(removed=(b"b", b"a/c"))
        _, inodes = usage(case.mount)
        expect(remount(case.mount, f"nr_inodes={inodes + 3}"), "could not limit the inodes")
        case.failed_run(b"Archiving deleted file failed")
        remount(case.mount, "nr_inodes=100000")
        case.finish(expected)


def with_bound_destination(case, fault, message):
    """The destination is a bind mount of a folder on a tmpfs; fault strikes once a copy runs."""
    backing = os.path.join(case.mount + "-backing")
    with tmpfs(backing, "size=400m"):
        real = os.path.join(backing, "dest")
        os.makedirs(real)
        os.makedirs(case.destination)
        subprocess.run(["mount", "--bind", real, case.destination], check=True)
        try:
            case.ferrovane.configure(case.destination, [case.source], case.options)
            case.ferrovane.complete(case.destination)
            case.configuration = read_configuration(case.destination)
            expected = case.change_sources()
            process = case.ferrovane.start(case.destination)
            expect(wait_for_copy(os.path.join(case.destination, NAME), process), "the run copied nothing")
            fault()
            out, _ = process.communicate(timeout=120)
            with open(case.ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
                out += f.read()
            expect(process.returncode == 255 and message in out,
                   f"expected 255 with {message!r}, got {process.returncode}: {out[-600:]}")
        finally:
            unmount(case.destination)
        subprocess.run(["mount", "--bind", real, case.destination], check=True)
        try:
            case.finish(expected)
        finally:
            unmount(case.destination)


def unmounted_mid_run(case):
    with_bound_destination(case, lambda: subprocess.run(["umount", "-l", case.destination], check=True), UNMOUNTED)


def make_read_only(path, seconds=10):
    """Turns the bind mount read-only in the first moment no file on it is open for writing."""
    libc = ctypes.CDLL(None, use_errno=True)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if libc.mount(None, os.fsencode(path), None, MS_REMOUNT | MS_BIND | MS_RDONLY, None) == 0:
            return
    raise Failure("the destination never became read-only")


def read_only_mid_run(case):
    with_bound_destination(case, lambda: make_read_only(case.destination), b"Backup errors:")


def source_changes_while_copied(ferrovane, work, change):
    case = Case(ferrovane, work)
    case.mount = work
    case.destination = os.path.join(work, "dest")
    case.prepare(mirror_first=False)
    huge = os.path.join(case.source, "huge.bin")
    process = ferrovane.start(case.destination)
    expect(wait_for_copy(os.path.join(case.destination, NAME), process), "the copy was not caught under way")
    change(huge)
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


SOURCE_CHANGES = {"truncated": truncate, "grown": grow, "replaced": replace, "removed": os.unlink}


def run(ferrovane, work):
    cases = [("source " + name, lambda w, c=change: source_changes_while_copied(ferrovane, w, c))
             for name, change in SOURCE_CHANGES.items()]
    root_cases = {"full at the start": full_at_start, "full in a large file": full_in_a_large_file,
                  "full in the cleanup pass": full_in_the_cleanup, "unmounted mid-run": unmounted_mid_run,
                  "read-only mid-run": read_only_mid_run}
    for name, body in root_cases.items():
        options = (("moveChangedFiles", 1),)
        cases.append((name, lambda w, b=body: b(Case(ferrovane, w, options))))
    for i, (name, body) in enumerate(cases):
        folder = os.path.join(work, str(i))
        os.makedirs(folder)
        if not is_root() and not name.startswith("source"):
            yield ("storage", name, "needs the superuser to mount", "skipped")
            continue
        try:
            body(folder)
            yield ("storage", name, "", "ok")
        except Failure as e:
            yield ("storage", name, "", f"FAILED: {e}")
        shutil.rmtree(folder, ignore_errors=True)
