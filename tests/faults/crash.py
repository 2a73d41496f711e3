"""Crash anywhere: SIGKILL a real run at seeded random moments, then run again to completion and
prove that nothing was lost."""

import os
import random
import subprocess
import time

from faultkit import Replayed, content, date_folders, digest, expect_clean_rerun, generate_tree, run_cases, write

NAME = Replayed.NAME
MOMENTS = {"quick": 2, "full": 8}  # kills per scenario


TREE_SIZES = {"quick": dict(folders=20, files=300, big_sizes=(6 << 20, 2 << 20)),
              "full": dict(folders=60, files=1500, big_sizes=(40 << 20, 12 << 20, 3 << 20))}


def mutate(rng, source, tree, share_changed, share_removed, folders_removed):
    """Changes, removes and adds files and removes whole folders of the source; returns the files
    it changed."""
    files = sorted(r for r, k in tree.items() if k[0] == "file")
    changed = rng.sample(files, int(len(files) * share_changed)) + [r for r in files if r.startswith(b"big0")]
    for rel in changed:
        write(os.path.join(source, rel), content(tree[rel][1] + 1, tree[rel][2] + 1), 2_000_000_000)
    for rel in rng.sample(files, int(len(files) * share_removed)) + [r for r in files if r.startswith(b"big1")]:
        path = os.path.join(source, rel)
        if os.path.exists(path):
            os.unlink(path)
    folders = sorted(r for r, k in tree.items() if k[0] == "dir")
    for rel in rng.sample(folders, folders_removed):
        path = os.path.join(source, rel)
        if os.path.exists(path):
            subprocess.run(["rm", "-rf", path], check=True)
    for i in range(20):
        write(os.path.join(source, b"new%02d" % i), content(3000, i))
    date_folders(source)  # a killed run's folder dates are then set right by the next run
    return changed


SCENARIOS = {
    # name: (options, mutation shares: changed, removed, folders removed; None for a first run)
    "first run": ((), None),
    "changed run": ((("moveChangedFiles", 1),), (0.15, 0.10, 2)),
    "cleanup pass": ((), (0.0, 0.5, 4)),
}


class Scenario(Replayed):
    def __init__(self, ferrovane, work, name, tier, seed):
        rng = random.Random(f"{seed}/{name}")
        options, mutation = SCENARIOS[name]
        tree = generate_tree(rng, **TREE_SIZES[tier])
        super().__init__(ferrovane, work, tree, options, first_run=mutation is not None)
        # With changed files not archived, a run overwrites them: their new version in the mirror
        # keeps them too.
        self.replaceable = {}
        if mutation:
            changed = mutate(rng, os.fsencode(self.source), tree, *mutation)
            if ("moveChangedFiles", 1) not in options:
                paths = {rel: os.path.join(os.fsencode(self.source), rel) for rel in changed}
                self.replaceable = {os.path.join(NAME.encode(), rel): digest(path).encode()
                                    for rel, path in paths.items() if os.path.exists(path)}
        self.keep()

    def duration(self):
        self.restore()
        begin = time.monotonic()
        self.ferrovane.complete(self.destination)
        return time.monotonic() - begin

    def phase(self):
        """The last thing the killed run logged, to show where the kill landed."""
        try:
            with open(self.ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
                lines = [l for l in f.read().decode(errors="replace").splitlines() if l.strip()]
            return lines[-1].split(": ", 1)[-1].split(" /")[0].rstrip(":") if lines else "before the log"
        except FileNotFoundError:
            return "before the log"

    def kill_at(self, seconds):
        self.restore()
        log = self.ferrovane.env["FERROVANE_LOG_FILE"]
        if os.path.exists(log):
            os.unlink(log)
        process = self.ferrovane.start(self.destination)
        time.sleep(seconds)
        killed = process.poll() is None
        if killed:
            process.kill()
        process.communicate()
        where = self.phase() if killed else "finished before the kill"
        # Straight after the kill: nothing the run was about to replace or remove is gone.
        expect_clean_rerun(self.ferrovane, self.destination, [self.source], self.before, self.configuration,
                           self.replaceable)
        return where


def run(ferrovane, work, tier, seed):
    """Yields result rows: (suite, case, where the kill landed, outcome)."""
    for name in SCENARIOS:
        folder = os.path.join(work, name.replace(" ", "-"))
        scenario = Scenario(ferrovane, folder, name, tier, seed)
        total = min(scenario.duration(), scenario.duration())
        rng = random.Random(f"{seed}/{name}/moments")
        moments = [rng.random() * total for _ in range(MOMENTS[tier])]
        yield from run_cases("crash", [(f"{name} #{i} at {at * 1000:.0f} ms", lambda _, at=at: scenario.kill_at(at))
                                       for i, at in enumerate(moments)], os.path.join(folder, "cases"))
        subprocess.run(["rm", "-rf", folder], check=True)
