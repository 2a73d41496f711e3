"""The state of the disk a series writes to: its journal, and waiting until it has settled."""

import contextlib
import os
import subprocess
import tempfile
import time


def describe(folder):
    """e.g. "ext4 on /dev/vda, no journal"."""
    out = subprocess.run(["findmnt", "-n", "-o", "FSTYPE,SOURCE", "-T", folder],
                         capture_output=True, text=True).stdout.split()
    fstype, device = (out + ["?", "?"])[:2]
    if fstype != "ext4":
        return f"{fstype} on {device}"
    journal = os.path.exists(f"/proc/fs/jbd2/{os.path.basename(device)}-8")
    return f"ext4 on {device}, {'with a journal' if journal else 'no journal'}"


def probe(parent):
    """Seconds to create 5,000 empty files in a new folder (kept: deleting them would unsettle)."""
    folder = tempfile.mkdtemp(dir=parent, prefix="probe-")
    os.sync()
    start = time.monotonic()
    for i in range(5000):
        open(os.path.join(folder, str(i)), "w").close()
    os.sync()
    return time.monotonic() - start


@contextlib.contextmanager
def settled(parent, lock, pause=10, attempts=30):
    """Holds the CPU lock from the moment two probes `pause` seconds apart agree within 20 %
    (right after a mass delete, ext4 creates files several times slower for minutes) to the end
    of the block, so that nothing else writes between the last probe and the timed runs.
    Yields the last probe's time."""
    with lock.held():
        last = probe(parent)
    for attempt in range(attempts):
        time.sleep(pause)
        with lock.held():
            now = probe(parent)
            if attempt + 1 == attempts or (now < last * 1.2 and last < now * 1.2):
                yield now
                return
        last = now
