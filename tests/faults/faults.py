#!/usr/bin/env python3
"""The fault suite: crash anywhere, storage faults, escapes, hostile names, durability, signals,
restores racing backups, the record of runs, restores of any run, a disk that comes and goes and
retention over months of runs, and a disk that would fill.

  faults.py --executable build/release/ferrovane --tier quick|full [--seed N] [--only crash,...]
           [--results tests/faults/RESULTS.md]

Every moment is seeded: the same seed replays the same kill moments and trees. Exits 1 on any
failure."""

import argparse
import importlib
import os
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # nothing left behind in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from faultkit import Ferrovane, workspace  # noqa: E402

# The parts in the order they run; each module's run(ferrovane, work, tier, seed) yields result rows.
PARTS = ("durability", "crash", "storage", "escapes", "hostile", "inject", "archives", "options", "access",
         "filesystems", "changes", "layout", "signals", "restores", "records", "pointintime", "connect",
         "retention", "space")


def fuzz(args, work):
    if not args.fuzzer:
        return
    corpus = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
    os.makedirs(os.path.join(work, "corpus"))
    r = subprocess.run([args.fuzzer, f"-runs={args.fuzz_runs}", f"-seed={args.seed}", "-max_len=8192",
                        f"-artifact_prefix={work}/", os.path.join(work, "corpus"), corpus],
                       capture_output=True, timeout=3600)
    case = f"configuration reader, {args.fuzz_runs} runs from {len(os.listdir(corpus))} corpus files"
    yield ("fuzz", case, "", "ok" if r.returncode == 0 else "FAILED: " + r.stderr.decode(errors="replace")[-800:])


def write_results(args, rows):
    with open(args.results, "w") as f:
        f.write("# Fault suite results\n\n")
        f.write(f"Tier {args.tier}, seed {args.seed}; replay with `tests/faults/faults.py --tier {args.tier} "
                f"--seed {args.seed}` (kill moments are times after the start).\n\n")
        f.write("| suite | case | where | outcome |\n|---|---|---|---|\n")
        for row in rows:
            f.write("| " + " | ".join(str(c).replace("|", "/") for c in row) + " |\n")
        failed = sum(1 for r in rows if r[-1].startswith("FAILED"))
        f.write(f"\n{len(rows)} cases, {failed} failed.\n")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--executable", required=True)
    parser.add_argument("--tier", choices=("quick", "full"), default="quick")
    parser.add_argument("--seed", type=int, default=int(time.time()) % 100000)
    parser.add_argument("--only", default="")
    parser.add_argument("--results")
    parser.add_argument("--fuzzer", help="the configuration reader's libFuzzer target")
    parser.add_argument("--fuzz-runs", type=int, default=1_000_000)
    args = parser.parse_args()
    only = set(filter(None, args.only.split(",")))
    print(f"fault suite: tier {args.tier}, seed {args.seed} (replay with --seed {args.seed})", flush=True)

    rows = []
    with workspace() as work:
        ferrovane = Ferrovane(os.path.abspath(args.executable), os.path.join(work, "Ferrovane.log"))
        suites = {name: importlib.import_module(name).run for name in PARTS}
        suites["fuzz"] = lambda _, w, *__: fuzz(args, w)
        for name, suite in suites.items():
            if only and name not in only:
                continue
            folder = os.path.join(work, name)
            os.makedirs(folder)
            begin = time.monotonic()
            for row in suite(ferrovane, folder, args.tier, args.seed):
                print(" | ".join(row), flush=True)
                rows.append(row)
            print(f"{name}: {time.monotonic() - begin:.1f} s", flush=True)
    failed = [r for r in rows if r[-1].startswith("FAILED")]
    if args.results:
        write_results(args, rows)
    print(f"{len(rows) - len(failed)} passed, {len(failed)} failed (seed {args.seed})")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
