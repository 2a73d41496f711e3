"""A disk that never silently fills: on a small tmpfs, a run that would leave less than the reserve
free makes room by purging the oldest archived runs, oldest first, or stops before copying with one
message and nothing in the destination changed. Every point in time left restores byte for byte;
the newest run's archives and the mirror stay; the next run has nothing to do."""

import os
import re
import shutil

from faultkit import (Mirrored, content, expect, expect_mirror, expect_status, log_since, log_size, record_stamps,
                      recorded, run_cases, tail, tmpfs, tree_state, write)

NAME = "data"
FILES = 4
SIZE = 2 << 20
RUNS = "__runs"
STOPPED = b"Sync stopped before copying: not enough room."


class Disk(Mirrored):
    """A source of FILES files and its destination on a 16 MiB tmpfs; each run's stamp and a copy
    of the source as the run saw it are kept."""

    def __init__(self, ferrovane, work, options=()):
        super().__init__(ferrovane, work, {b"f%d" % i: ("file", SIZE, i) for i in range(FILES)}, options,
                         first_run=False, destination=os.path.join(work, "mnt", "dest"))
        self.stamps, self.copies = [], {}

    def change(self, generation):
        write(os.path.join(self.source, "f%d" % (generation % FILES)), content(SIZE, 1000 + generation))

    def run(self):
        r, stamp = recorded(self.destination, lambda: self.ferrovane.run(self.destination))
        expect(r.returncode == 0, f"run {len(self.stamps)}: exit {r.returncode}: {tail(r)}")
        self.stamps.append(stamp)
        self.copies[stamp] = os.path.join(self.work, "copies", stamp)
        shutil.copytree(self.source, self.copies[stamp], symlinks=True)

    def expect_stop(self, needs):
        """A run and a dry run that stop before copying: exit 1, the message once, naming what
        helps (needs), and the destination exactly as it was."""
        before = tree_state(self.destination)
        for dry in (True, False):
            r = self.ferrovane.command(*(["--dry-run"] if dry else []), "--no-notifications", self.destination)
            said = r.stdout + r.stderr
            expect(r.returncode == 1 and STOPPED in r.stdout, f"dry run {dry}: exit {r.returncode}: {tail(r)}")
            expect(said.count(b"Not enough room on ") == 1 and needs in said,
                   f"dry run {dry}: not one message naming {needs!r}: {tail(r)}")
            expect(tree_state(self.destination) == before, f"dry run {dry}: the stopped run changed the destination")
        return r.stderr.decode()

    def expect_points_in_time(self):
        """Every record left restores its run's state byte for byte."""
        for stamp in record_stamps(self.destination):
            out = os.path.join(self.work, "out", stamp)
            expect_status(self.ferrovane.command("restore", self.destination, self.source, "--at", stamp, "--to", out), 0,
                          f"restore --at {stamp}")
            expect_mirror(self.copies[stamp], os.path.join(out, NAME))

    def expect_nothing_left_to_do(self):
        expect_mirror(self.source, os.path.join(self.destination, NAME))
        offset = log_size(self.ferrovane)
        self.run()
        log = log_since(self.ferrovane, offset)
        expect(b"(0 items changed)" in log and b"to make room" not in log, f"the run after found work: {log[-600:]}")


def cannot_make_room(ferrovane, work):
    """Nothing archived to purge: the run stops; the reserve the message suggests lets it through."""
    with tmpfs(os.path.join(work, "mnt"), "size=16m"):
        d = Disk(ferrovane, work)
        d.run()
        st = os.statvfs(d.destination)
        free, reserve = st.f_bavail * st.f_frsize, st.f_blocks * st.f_frsize // 10
        # Fits into the free space, not beside the reserve, with more than a megabyte to spare.
        write(os.path.join(d.source, "new"), content((free - reserve + (300 << 10)) // 4096 * 4096, 7))
        said = d.expect_stop(b"set keepFreeSpaceMB ")
        expect("kept free" in said and "Free space on the disk" in said, f"the message: {said}")
        suggested = re.search(r"set keepFreeSpaceMB (\d+)", said).group(1)
        expect_status(ferrovane.config(d.destination, "set", "keepFreeSpaceMB", suggested), 0, "config set")
        d.run()
        d.expect_nothing_left_to_do()


def history(ferrovane, work, purge_allowed):
    """Runs that each change one file until the archives fill the disk: with the purge allowed,
    the oldest runs go, oldest first; without it, the run stops, and allowing it lets it through."""
    with tmpfs(os.path.join(work, "mnt"), "size=16m"):
        d = Disk(ferrovane, work, () if purge_allowed else (("purgeOldestForSpace", "no"),))
        d.run()
        offset = log_size(ferrovane)
        for generation in range(1, 9):
            d.change(generation)
            if not purge_allowed and len(d.stamps) == 4:
                d.expect_stop(b"set purgeOldestForSpace yes")
                expect(record_stamps(d.destination) == d.stamps, "a run that stopped removed records")
                expect_status(ferrovane.config(d.destination, "set", "purgeOldestForSpace", "yes"), 0, "config set")
            d.run()
        log = log_since(ferrovane, offset).decode(errors="replace")
        removed = re.findall(r"Removed (.*) to make room", log)
        left = record_stamps(d.destination)
        expect(removed and left == d.stamps[len(d.stamps) - len(left):] and len(left) < len(d.stamps),
               f"records left {left} of {d.stamps}; removed {removed}")
        prefix = d.destination + "/"
        expect(all(p.startswith(prefix + RUNS + "/") or p.startswith(prefix + "__changed/") for p in removed),
               f"a purge touched more than old runs: {removed}")
        order = [re.search(r"\d{4}-\d\d-\d\d \d\d\.\d\d\.\d\d [+-]\d{4}", p).group(0) for p in removed]
        expect(order == sorted(order), f"not oldest first: {removed}")
        expect(os.path.isdir(os.path.join(d.destination, "__changed", d.stamps[-1])), "the newest run's archives went")
        d.expect_points_in_time()
        d.expect_nothing_left_to_do()


def run(ferrovane, work, *_):
    cases = [("room cannot be made: stops before copying, nothing changed, the suggested reserve fits",
              lambda w: cannot_make_room(ferrovane, w)),
             ("room is made: the oldest archived runs go first, every point in time left restores",
              lambda w: history(ferrovane, w, True)),
             ("purge not allowed: stops instead, and goes on once allowed",
              lambda w: history(ferrovane, w, False))]
    yield from run_cases("space", cases, work, root_only=lambda name: True, why="needs the superuser to mount",
                         after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
