#!/usr/bin/env python3
"""The fault suite: crash anywhere, storage faults, escapes, hostile names, durability, signals,
restores racing backups, the record of runs, restores of any run, a disk that comes and goes and
retention over months of runs, and a disk that would fill.

  faults.py --executable build/release/ferrovane --tier quick|full [--seed N] [--only crash,...]
           [--results tests/faults/RESULTS.md]

Every moment is seeded: the same seed replays the same kill moments and trees. Exits 1 on any
failure."""

import argparse
import os
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # nothing left behind in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import access  # noqa: E402
import archives  # noqa: E402
import changes  # noqa: E402
import connect  # noqa: E402
import crash  # noqa: E402
import durability  # noqa: E402
import escapes  # noqa: E402
import filesystems  # noqa: E402
import hostile  # noqa: E402
import inject  # noqa: E402
import layout  # noqa: E402
import options  # noqa: E402
import pointintime  # noqa: E402
import records  # noqa: E402
import restores  # noqa: E402
import retention  # noqa: E402
import signals  # noqa: E402
import space  # noqa: E402
import storage  # noqa: E402
from faultkit import Ferrovane, workspace  # noqa: E402

MOMENTS = {"quick": 2, "full": 8}


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
    parser.add_argument("--tier", choices=MOMENTS, default="quick")
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
        suites = {
            "durability": lambda w: durability.run(ferrovane, w),
            "crash": lambda w: crash.run(ferrovane, w, args.tier, args.seed, MOMENTS[args.tier]),
            "storage": lambda w: storage.run(ferrovane, w),
            "escapes": lambda w: escapes.run(ferrovane, w),
            "hostile": lambda w: hostile.run(ferrovane, w),
            "inject": lambda w: inject.run(ferrovane, w, args.tier),
            "archives": lambda w: archives.run(ferrovane, w, args.tier),
            "options": lambda w: options.run(ferrovane, w, args.tier),
            "access": lambda w: access.run(ferrovane, w),
            "filesystems": lambda w: filesystems.run(ferrovane, w),
            "changes": lambda w: changes.run(ferrovane, w, args.tier),
            "layout": lambda w: layout.run(ferrovane, w, args.tier, args.seed),
            "signals": lambda w: signals.run(ferrovane, w),
            "restores": lambda w: restores.run(ferrovane, w),
            "records": lambda w: records.run(ferrovane, w),
            "pointintime": lambda w: pointintime.run(ferrovane, w),
            "connect": lambda w: connect.run(ferrovane, w),
            "retention": lambda w: retention.run(ferrovane, w, args.tier),
            "space": lambda w: space.run(ferrovane, w),
            "fuzz": lambda w: fuzz(args, w),
        }
        for name, suite in suites.items():
            if only and name not in only:
                continue
            folder = os.path.join(work, name)
            os.makedirs(folder)
            begin = time.monotonic()
            for row in suite(folder):
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
