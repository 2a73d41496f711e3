"""Run records: a run killed with -9 in the middle of a copy leaves no record that passes for a
run, the last complete record stays the newest point in time, and the next run records the whole
mirror. What a record holds is the engine's run-record test; that it keeps the modes exFAT cannot
is the point-in-time part's restore from exFAT."""

import json
import os
import shutil
import signal

from faultkit import (RUNS, TEMPORARY_PREFIX, expect, expect_clean_rerun, expect_kept, expect_mirror, expect_status,
                      run_cases, tail)
from signals import Destination


def records(ferrovane, destination):
    """The destination's records as `runs --json` lists them, newest first."""
    r = ferrovane.command("runs", destination, "--json", timeout=60)
    expect(r.returncode == 0, f"runs failed ({r.returncode}): {tail(r)}")
    return json.loads(r.stdout)["records"]


def temporary_records(destination):
    folder = os.path.join(destination, RUNS)
    return [n for n in os.listdir(folder) if n.startswith(TEMPORARY_PREFIX.decode())] if os.path.isdir(folder) else []


def killed_mid_copy(ferrovane, work):
    d = Destination(ferrovane, work)
    first = records(ferrovane, d.destination)
    expect(len(first) == 1 and first[0]["complete"], f"the first run is not recorded complete: {first}")
    process = d.held()
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
    # The record is whole: the run restores from it as the source is.
    out = os.path.join(work, "restored")
    expect_status(ferrovane.command("restore", d.destination, d.source, "--at", after[0]["stamp"], "--to", out), 0,
                  "restore --at the next run")
    expect_mirror(d.source, os.path.join(out, "data"))


def run(ferrovane, work, *_):
    cases = [("killed with -9 mid-copy: the last complete record stays the newest", lambda w: killed_mid_copy(ferrovane, w))]
    yield from run_cases("records", cases, work, after=lambda folder: shutil.rmtree(folder, ignore_errors=True))
