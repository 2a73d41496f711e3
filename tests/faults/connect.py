"""A disk that comes and goes: the units that `config schedule` writes for the calendar and for a
disk being connected, their command lines run the way systemd runs them, on a destination in a
loop image that is unmounted and mounted again. An absent disk writes nothing into its bare mount
point and is recorded as not connected; a connect run soon after a good run only records that it
was skipped; the next run keeps every earlier version and leaves rsync nothing to do."""

import os
import plistlib
import re
import subprocess

from faultkit import (attempt, build, content, expect, expect_kept, expect_mirror, expect_no_temporaries,
                      expect_status, mirror_of, run_cases, tail, unmount, versions, write)

TREE = {b"notes.txt": ("file", 3000, 1), b"sub": ("dir",), b"sub/photo.bin": ("file", 70000, 2)}
PREFIX = "com.quillmarsh.ferrovane."


def unit_value(unit, key):
    with open(unit, "rb") as f:
        return [l for l in f.read().splitlines() if l.startswith(key + b"=")][-1][len(key) + 1:]


def exec_words(unit):
    """ExecStart= of a unit as systemd runs it: prefixes dropped, split at blanks, \\xNN and %% decoded."""
    value = unit_value(unit, b"ExecStart").lstrip(b"-:")
    decode = lambda w: re.sub(rb"\\x([0-9a-f]{2})", lambda m: bytes([int(m.group(1), 16)]), w).replace(b"%%", b"%")
    return [decode(w) for w in value.split()]


class Disk:
    def __init__(self, ferrovane, work):
        self.image, self.mount_point = os.path.join(work, "disk.img"), os.path.join(work, "My Disk")
        self.source = os.path.join(work, "src", "Documents")
        self.destination = os.path.join(self.mount_point, "Backups")
        self.jobs, self.state, bin_dir = (os.path.join(work, n) for n in ("jobs", "state", "bin"))
        os.makedirs(bin_dir)
        os.makedirs(self.mount_point)
        # systemctl is not reached: the units are only written, and run here by hand.
        write(os.path.join(bin_dir, "systemctl"), b"#!/bin/sh\nexit 0\n")
        os.chmod(os.path.join(bin_dir, "systemctl"), 0o755)
        self.env = dict(ferrovane.env, PATH=bin_dir + ":" + os.environ["PATH"], FERROVANE_JOB_DIRECTORY=self.jobs,
                        FERROVANE_JOB_STATUS_DIRECTORY=self.state)
        self.ferrovane, self.uuid = ferrovane, None
        with open(self.image, "wb") as f:
            f.truncate(32 << 20)
        attempt(["mkfs.ext4", "-q", "-F", self.image], "mkfs.ext4")

    def plug(self):
        attempt(["mount", "-o", "loop", self.image, self.mount_point], "mounting the image")

    def unplug(self):
        unmount(self.mount_point)

    def config(self, *args):
        expect_status(self.ferrovane.config(self.destination, *args, env=self.env), 0, f"config {' '.join(args)}")

    def identify(self):
        """The identity that names the units and the status, once a schedule gave the destination one."""
        with open(os.path.join(self.destination, ".ferrovane.conf"), "rb") as f:
            self.uuid = plistlib.load(f)["settings"]["UUID"]

    def run_unit(self, name):
        return subprocess.run(exec_words(os.path.join(self.jobs, PREFIX + self.uuid + name)), env=self.env,
                              capture_output=True, timeout=300)

    def last(self):
        with open(os.path.join(self.state, self.uuid + ".plist"), "rb") as f:
            return plistlib.load(f)["lastScheduledAttempt"]["outcome"]


def comes_and_goes(ferrovane, work):
    disk = Disk(ferrovane, work)
    build(os.fsencode(disk.source), TREE)
    disk.plug()
    try:
        os.makedirs(disk.destination)
        disk.config("add", disk.source)
        disk.config("set", "moveChangedFiles", "yes")
        disk.config("schedule", "daily", "03:30")
        disk.config("schedule", "when-connected", "on", "60")
        disk.identify()
        service = os.path.join(disk.jobs, PREFIX + disk.uuid + "-connect.service")
        mount_unit = subprocess.run(["systemd-escape", "--path", "--suffix=mount", disk.mount_point],
                                    capture_output=True).stdout.strip()
        expect(unit_value(service, b"BindsTo") == mount_unit, f"the service is not bound to {mount_unit}")

        first = disk.run_unit("-connect.service")
        expect(first.returncode == 0 and disk.last() == "finished", f"the first connect run failed: {tail(first)}")
        write(os.path.join(disk.source, "notes.txt"), content(4000, 9))
        before = versions(disk.destination)

        disk.unplug()
        absent = disk.run_unit(".service")
        expect(absent.returncode == 0, f"a calendar run without the disk failed ({absent.returncode}): {tail(absent)}")
        expect(disk.last() == "not-connected", f"recorded {disk.last()} for an absent disk")
        expect(os.listdir(disk.mount_point) == [], "a run wrote into the bare mount point")

        disk.plug()
        soon = disk.run_unit("-connect.service")
        expect(soon.returncode == 0 and disk.last() == "skipped", f"a connect run within the hour ran: {tail(soon)}")
        expect(versions(disk.destination) == before, "a skipped run changed the destination")

        disk.config("schedule", "when-connected", "on", "0")
        again = disk.run_unit("-connect.service")
        expect(again.returncode == 0 and disk.last() == "finished", f"the connect run failed: {tail(again)}")
        expect_kept(disk.destination, before)
        expect_mirror(disk.source, mirror_of(disk.destination, disk.source))
        expect_no_temporaries(disk.destination)
    finally:
        disk.unplug()


def run(ferrovane, work, *_):
    yield from run_cases("connect", [("loop disk unplugged and plugged: not-connected, skipped, versions kept",
                                      lambda w: comes_and_goes(ferrovane, w))], work,
                         root_only=lambda name: True, why="needs the superuser to mount images")
