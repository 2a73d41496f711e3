"""Run records: a run killed with -9 in the middle of a copy leaves no record that passes for a
run, the last complete record stays the newest point in time, and the next run records the whole
mirror; on exFAT, which keeps no modes, the record keeps the source's."""

import json
import os
import shutil
import signal
import subprocess
import sys

from faultkit import RUNS, TEMPORARY_PREFIX, expect, expect_clean_rerun, expect_kept, run_cases, tail
from filesystems import EXFAT
from signals import Destination

TYPES = {1: "file", 2: "dir", 3: "link", 4: "other"}


def records(ferrovane, destination):
    """The destination's records as `runs --json` lists them, newest first."""
    r = ferrovane.command("runs", destination, "--json", timeout=60)
    expect(r.returncode == 0, f"runs failed ({r.returncode}): {tail(r)}")
    return json.loads(r.stdout)["records"]


class Payload:
    def __init__(self, data):
        self.data, self.at = data, 0

    def varint(self):
        value, shift = 0, 0
        while True:
            byte = self.data[self.at]
            self.at += 1
            value |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                return value

    def signed(self):
        value = self.varint()
        return (value >> 1) ^ -(value & 1)

    def take(self, n):
        self.at += n
        return self.data[self.at - n:self.at]

    def string(self):
        return self.take(self.varint())


def entries(manifest):
    """{path: (type, mode, failed, has digest)} of a record, read as docs/manifest.md describes it."""
    data = subprocess.run(["zstd", "-dc", manifest], capture_output=True, check=True).stdout
    expect(data.startswith(b"FVMANIFEST"), f"{manifest} is no record")
    p = Payload(data)
    p.at = len(b"FVMANIFEST")
    expect(p.varint() == 1, "unknown record format")
    out, previous = {}, b""
    while p.at < len(data):
        tag, payload = p.take(1), Payload(p.string())
        if tag != b"E":
            continue
        flags, kind = payload.varint(), payload.take(1)[0]
        shared = payload.varint()
        path = previous[:shared] + payload.string()
        previous = path
        payload.varint()  # size
        payload.signed()  # modification time
        mode = payload.varint()
        out[path] = (TYPES[kind], mode, bool(flags & 2), bool(flags & 1))
    return out


def expect_recorded(destination, record, source, mirror_name):
    """The record lists each item of the source once, with its mode, and a digest for each file."""
    recorded = entries(os.path.join(destination, RUNS, record["stamp"] + ".fvmanifest"))
    root = os.fsencode(source)
    wanted = {b"/" + mirror_name: root}
    for folder, dirs, names in os.walk(root):
        for name in dirs + names:
            path = os.path.join(folder, name)
            wanted[b"/" + mirror_name + path[len(root):]] = path
    expect(set(recorded) == set(wanted),
           f"recorded and mirrored differ: {sorted(set(recorded) ^ set(wanted))[:6]}")
    for path, (kind, mode, failed, digest) in recorded.items():
        st = os.lstat(wanted[path])
        expect(mode == st.st_mode & 0o7777, f"{path} recorded with mode {mode:o}, its source has {st.st_mode:o}")
        expect(not failed and (digest or kind != "file"), f"{path} recorded failed or without its digest")


def temporary_records(destination):
    folder = os.path.join(destination, RUNS)
    return [n for n in os.listdir(folder) if n.startswith(TEMPORARY_PREFIX.decode())] if os.path.isdir(folder) else []


def killed_mid_copy(ferrovane, work):
    d = Destination(ferrovane, work)
    first = records(ferrovane, d.destination)
    expect(len(first) == 1 and first[0]["complete"], f"the first run is not recorded complete: {first}")
    process = d.held(d.start_backup)
    process.send_signal(signal.SIGKILL)
    process.communicate(timeout=60)
    expect(records(ferrovane, d.destination) == first, "the killed run left a record that passes for a run")
    expect(temporary_records(d.destination), "the killed run was not writing its record")
    expect_kept(d.destination, d.before)
    expect_clean_rerun(ferrovane, d.destination, [d.source], d.before)
    after = records(ferrovane, d.destination)
    expect([r["complete"] for r in after] == [True, True] and after[1] == first[0],
           f"the next run is not recorded after the first: {after}")
    expect(not temporary_records(d.destination), "the next run left the killed run's record behind")
    expect_recorded(d.destination, after[0], d.source, b"data")


def exfat_keeps_modes(ferrovane, work):
    source = os.path.join(work, "private")
    os.makedirs(os.path.join(source, "keys"), mode=0o700)
    with open(os.path.join(source, "keys", "secret"), "wb") as f:
        f.write(b"private bytes")
    os.chmod(os.path.join(source, "keys", "secret"), 0o600)
    os.chmod(os.path.join(source, "keys"), 0o700)
    with EXFAT.mounted(work) as mnt:
        destination = os.path.join(mnt, "dest")
        os.makedirs(destination)
        ferrovane.configure(destination, [source])
        ferrovane.complete(destination)
        held = os.stat(os.path.join(destination, "private", "keys", "secret")).st_mode & 0o777
        expect(held != 0o600, "exFAT kept the mode: nothing to show")
        expect_recorded(destination, records(ferrovane, destination)[0], source, b"private")


def run(ferrovane, work):
    cases = [("killed with -9 mid-copy: the last complete record stays the newest", lambda w: killed_mid_copy(ferrovane, w)),
             ("exFAT: the record keeps the modes the destination cannot", lambda w: exfat_keeps_modes(ferrovane, w))]
    yield from run_cases("records", cases, work, root_only=lambda name: name.startswith("exFAT"),
                         why="needs the superuser to mount images",
                         after=lambda folder: shutil.rmtree(folder, ignore_errors=True))


if __name__ == "__main__":
    sys.exit("run through faults.py")
