"""Hostile names: newlines, control characters, invalid UTF-8, 255-byte components and paths
deeper than PATH_MAX, through a whole run, the log, the configuration, the config and search
subcommands and a scheduled job's unit files."""

import os
import shutil
import subprocess

from faultkit import Failure, build, expect, expect_mirror, tail

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


def check_log(path):
    with open(path, "rb") as f:
        log = f.read()
    expect(b"\x1b" not in log, "the log holds a raw escape character")


def run(ferrovane, work):
    work = os.fsencode(work)
    source, destination = os.path.join(work, SOURCE_NAME), os.path.join(work, b"dest " + NAMES[0])
    make_tree(source)
    os.makedirs(destination)
    cases = []

    def case(name, body):
        try:
            body()
            cases.append(("hostile", name, "", "ok"))
        except Failure as e:
            cases.append(("hostile", name, "", f"FAILED: {e}"))

    def configuration():
        ferrovane.configure(destination, [source], (("performExtendedLogging", 1),))
        shown = ferrovane.config(destination, "show")
        expect(shown.returncode == 0 and b"\x1b" not in shown.stdout, f"config show: {tail(shown)}")

    def whole_run():
        # The walk names entries by whole paths, which the kernel refuses beyond PATH_MAX: the deep
        # folder is reported as one error and everything else is mirrored.
        for attempt in ("first", "second"):
            r = ferrovane.run(destination)
            errors = r.stdout.split(b"Backup errors:\n", 1)[-1].strip().split(b"\n")
            expect(r.returncode == 255 and len(errors) == 1 and errors[0].startswith(b"ERROR: Could not analyse")
                   and errors[0].endswith(b"(Error: 36)"), f"{attempt} run: {tail(r)}")
            expect_mirror(source, os.path.join(destination, SOURCE_NAME), excluded=[DEEP[0]])
        check_log(ferrovane.env["FERROVANE_LOG_FILE"])

    def search():
        r = subprocess.run([ferrovane.executable, "search", destination, "esc"], env=ferrovane.env,
                           capture_output=True, timeout=60)
        expect(r.returncode == 0 and b"red" in r.stdout, f"search: {tail(r)}")
        expect(b"\x1b" not in r.stdout, "search printed a raw escape character")

    def schedule():
        jobs, bin_ = os.path.join(work, b"jobs"), os.path.join(work, b"bin")
        os.makedirs(bin_)
        with open(os.path.join(bin_, b"systemctl"), "w") as f:
            f.write("#!/bin/sh\nexit 0\n")
        os.chmod(os.path.join(bin_, b"systemctl"), 0o755)
        env = dict(ferrovane.env, PATH=os.fsdecode(bin_), FERROVANE_JOB_DIRECTORY=os.fsdecode(jobs))
        r = ferrovane.config(destination, "schedule", "daily", "10:00", env=env)
        expect(r.returncode == 0, f"schedule: {tail(r)}")
        units = [os.path.join(jobs, n) for n in os.listdir(jobs) if n.endswith(b".service")]
        expect(units, "no unit file written")
        verifier = shutil.which("systemd-analyze")
        if verifier:
            v = subprocess.run([verifier, "verify", *units], capture_output=True, timeout=60)
            expect(b"ExecStart" not in v.stderr, f"unit file rejected: {v.stderr[-400:]}")
        with open(units[0], "rb") as f:
            unit = f.read()
        expect(b"\x1b" not in unit, "the unit file holds a raw escape character")

    case("configuration add and show", configuration)
    case("whole run, log and second run (deep folder reported)", whole_run)
    case("search", search)
    case("scheduled job's unit files", schedule)
    yield from cases
