"""Restores racing backups: a restore started while a backup holds the destination is refused
with exit status 75 and writes nothing; a backup started while a restore holds it is refused the
same way, and a second restore shares it. Afterwards every earlier version is kept, and the
runs and restores that were let through complete."""

import os
import shutil
import subprocess

from faultkit import expect, expect_clean_rerun, expect_status, finish, mirror_differences, run_cases, tail
from signals import MOMENT, Destination, expect_restored

BUSY = b"Another Ferrovane run is using this destination"


def restore_during_backup(ferrovane, work):
    d = Destination(ferrovane, work)
    backup = d.held()
    try:
        refused = subprocess.run(d.restore_args(), env=ferrovane.env, capture_output=True, timeout=60)
        expect_status(refused, 75, "the restore during a backup")
        expect(BUSY in refused.stderr, f"the restore did not say why: {tail(refused)}")
        expect(not os.path.exists(d.restored), "the refused restore wrote into the target")
    finally:
        d.hooks.release(MOMENT)
    expect_status(finish(backup), 0, "the backup")
    expect_clean_rerun(ferrovane, d.destination, [d.source], d.before)


def backup_during_restore(ferrovane, work):
    d = Destination(ferrovane, work, "restore")
    restore = d.held()
    try:
        refused = ferrovane.run(d.destination, timeout=60)
        expect_status(refused, 75, "the backup during a restore")
        expect(BUSY in refused.stderr, f"the backup did not say why: {tail(refused)}")
        # Restores share the destination.
        other = os.path.join(work, "other")
        beside = subprocess.run(d.restore_args(to=other), env=ferrovane.env, capture_output=True, timeout=120)
        expect_status(beside, 0, "a second restore beside the first")
        expect(mirror_differences(d.mirror, os.path.join(other, "data")) == "", "the second restore is not complete")
    finally:
        d.hooks.release(MOMENT)
    expect_status(finish(restore), 0, "the held restore")
    expect_restored(d, "the held restore")
    expect_clean_rerun(ferrovane, d.destination, [d.source], d.before)


def run(ferrovane, work, *_):
    cases = [("restore while a backup holds the destination", lambda w: restore_during_backup(ferrovane, w)),
             ("backup while a restore holds the destination", lambda w: backup_during_restore(ferrovane, w))]
    yield from run_cases("restores", cases, work, after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
