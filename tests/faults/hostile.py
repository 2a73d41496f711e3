"""Hostile names: newlines, control characters, invalid UTF-8, 255-byte components and paths
deeper than PATH_MAX, through a whole run, the log, the configuration (which another
property-list reader must still parse) and the config subcommand. (Search output and unit files
get such names in their own tests; configurations nested too deeply for a recursive parser are the
property-list reader's.)"""

import os
import plistlib
import subprocess

from faultkit import (Failure, Mirrored, build, expect, expect_mirror, expect_status, log_since, read_configuration,
                      run_cases, tail)

NAMES = [b"new\nline", b"tab\tand\x01ctl", b"esc\x1b[31mred", b"bad\xff\xfeutf8", b"n" * 255, b"q'uo\"te %h $x"]
SOURCE_NAME = b"src\n\x1b[2J\xff"
DEEP = [b"%03d" % i + b"d" * 247 for i in range(18)]  # 4,500 bytes below the source


def make_tree(source):
    build(source, {name: ("file", 100 + i, i) for i, name in enumerate(NAMES)} |
          {b"dir " + NAMES[0]: ("dir",), b"dir " + NAMES[0] + b"/" + NAMES[3]: ("file", 5, 9)})
    fd = os.open(source, os.O_RDONLY | os.O_DIRECTORY)
    for name in DEEP:  # deeper than one path may name: built one folder at a time
        os.mkdir(name, dir_fd=fd)
        child = os.open(name, os.O_RDONLY | os.O_DIRECTORY, dir_fd=fd)
        os.close(fd)
        fd = child
    with open(os.open(b"bottom" + NAMES[0], os.O_WRONLY | os.O_CREAT, 0o644, dir_fd=fd), "wb") as f:
        f.write(b"deep")
    os.close(fd)


def expect_same_deep_tree(source, mirror):
    """The deep folder chain is the same below both roots: names, kinds, modes, owners, dates to the
    second and contents, as tar (which walks beyond PATH_MAX) records them."""
    packed = [subprocess.run(["tar", "--sort=name", "-cf", "-", DEEP[0]], cwd=root, capture_output=True)
              for root in (source, mirror)]
    expect(all(p.returncode == 0 for p in packed), f"tar failed: {packed[0].stderr[-300:]} {packed[1].stderr[-300:]}")
    expect(packed[0].stdout == packed[1].stdout, "the deep folder chain differs from the source's")


def expect_readable_configuration(destination, source):
    """Python's reader parses the file, finds the source's exact bytes and no stored size."""
    try:
        stored = plistlib.loads(read_configuration(os.fsdecode(destination)))
    except Exception as e:  # noqa: BLE001 - any parse failure is the finding
        raise Failure(f"another reader cannot parse the configuration: {e}")
    entry = stored["sources"][0]
    expect(entry.get("sourcePathBytes") == source, f"the source's bytes are not in the file: {entry}")
    expect("sizeInMB" not in entry, "the configuration stores a size")


def run(ferrovane, work, *_):
    work = os.fsencode(work)
    source, destination = os.path.join(work, SOURCE_NAME), os.path.join(work, b"dest " + NAMES[0])
    make_tree(source)
    os.makedirs(destination)

    def configuration():
        ferrovane.configure(destination, [source], (("performExtendedLogging", 1),))
        shown = ferrovane.config(destination, "show")
        expect(shown.returncode == 0 and b"\x1b" not in shown.stdout, f"config show: {tail(shown)}")
        expect_readable_configuration(destination, source)

    def whole_run():
        # The deep folder lies beyond what one path may name; it is mirrored like everything else,
        # and the second run finds nothing to do.
        for attempt in ("first", "second"):
            r = ferrovane.run(destination)
            expect(r.returncode == 0 and b"ferrovane: error:" not in r.stdout + r.stderr, f"{attempt} run: {tail(r)}")
            mirror = os.path.join(destination, SOURCE_NAME)
            expect_mirror(source, mirror, excluded=[DEEP[0]])  # rsync stops at PATH_MAX
            expect_same_deep_tree(source, mirror)
        log = log_since(ferrovane, 0)
        expect(b"(0 items changed)" in r.stdout + log, "the second run copied again")
        expect(b"\x1b" not in log, "the log holds a raw escape character")
        expect_readable_configuration(destination, source)  # after the run's write-back

    def names_like_temporaries():
        # Only names of the form the program makes are leftovers, and never one whose source exists.
        d = Mirrored(ferrovane, os.path.join(work, b"tmp-names"), {
            b".ferrovane-tmp-notes.txt": ("file", 40, 1), b".ferrovane-tmp-0123456789abcdef": ("file", 50, 2),
            b"plain": ("file", 10, 3)}, first_run=False)
        for attempt in ("first", "second", "third"):
            expect_status(ferrovane.run(d.destination), 0, f"the {attempt} run")
            expect_mirror(d.source, d.mirror)

    cases = [("configuration add and show", lambda _: configuration()),
             ("whole run, log and second run (deep folder mirrored)", lambda _: whole_run()),
             ("source files named like temporaries, three runs", lambda _: names_like_temporaries())]
    yield from run_cases("hostile", cases, os.fsdecode(os.path.join(work, b"cases")))
