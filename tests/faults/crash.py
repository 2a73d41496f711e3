"""Crash anywhere: SIGKILL a real run at seeded random moments, then run again to completion and
prove that nothing was lost."""

import os
import random
import subprocess
import time

from faultkit import (Failure, build, digest, expect_configuration, expect_kept, expect_mirror,
                      expect_no_temporaries, generate_tree, content, read_configuration, versions)

NAME = "data"


def tree_size(tier):
    if tier == "quick":
        return dict(folders=20, files=300, big_sizes=(6 << 20, 2 << 20))
    return dict(folders=60, files=1500, big_sizes=(40 << 20, 12 << 20, 3 << 20))


def mutate(rng, source, tree, share_changed, share_removed, folders_removed):
    """Changes, removes and adds files and removes whole folders of the source; returns the files
    it changed."""
    files = sorted(r for r, k in tree.items() if k[0] == "file")
    changed = rng.sample(files, int(len(files) * share_changed)) + [r for r in files if r.startswith(b"big0")]
    for rel in changed:
        size, seed = tree[rel][1], tree[rel][2]
        path = os.path.join(source, rel)
        with open(path, "wb") as f:
            f.write(content(size + 1, seed + 1))
        os.utime(path, (2_000_000_000, 2_000_000_000))
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
        with open(os.path.join(source, b"new%02d" % i), "wb") as f:
            f.write(content(3000, i))
    # Changes made long before the run: a killed run's own folder dates then always differ by
    # more than the 10 s tolerance and are set right by the next run.
    for folder, _, _ in sorted(os.walk(source), reverse=True):
        os.utime(folder, (1_500_000_000, 1_500_000_000))
    return changed


SCENARIOS = {
    # name: (options, mutation shares: changed, removed, folders removed; None for a first run)
    "first run": ((), None),
    "changed run": ((("moveChangedFiles", 1),), (0.15, 0.10, 2)),
    "cleanup pass": ((), (0.0, 0.5, 4)),
}


class Scenario:
    def __init__(self, ferrovane, work, name, tier, seed):
        self.ferrovane, self.name = ferrovane, name
        self.live, self.template = os.path.join(work, "live"), os.path.join(work, "template")
        self.source = os.path.join(self.live, "src", NAME)
        self.destination = os.path.join(self.live, "dest")
        rng = random.Random(f"{seed}/{name}")
        options, mutation = SCENARIOS[name]
        tree = generate_tree(rng, **tree_size(tier))
        build(os.fsencode(self.source), tree)
        os.makedirs(self.destination)
        ferrovane.configure(self.destination, [self.source], options)
        # With changed files not archived, a run overwrites them: their new version in the mirror
        # keeps them too.
        self.replaceable = {}
        if mutation:
            ferrovane.complete(self.destination)
            changed = mutate(rng, os.fsencode(self.source), tree, *mutation)
            if ("moveChangedFiles", 1) not in options:
                paths = {rel: os.path.join(os.fsencode(self.source), rel) for rel in changed}
                self.replaceable = {os.path.join(NAME.encode(), rel): digest(path).encode()
                                    for rel, path in paths.items() if os.path.exists(path)}
        self.before = versions(self.destination)
        self.configuration = read_configuration(self.destination)
        subprocess.run(["cp", "-a", self.live, self.template], check=True)

    def restore(self):
        subprocess.run(["rm", "-rf", self.live], check=True)
        subprocess.run(["cp", "-a", self.template, self.live], check=True)

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
        expect_kept(self.destination, self.before, self.replaceable)
        expect_configuration(self.destination, self.configuration)
        self.ferrovane.complete(self.destination)
        expect_mirror(self.source, os.path.join(self.destination, NAME))
        expect_kept(self.destination, self.before, self.replaceable)
        expect_no_temporaries(self.destination)
        expect_configuration(self.destination, self.configuration)
        return where


def run(ferrovane, work, tier, seed, moments):
    """Yields result rows: (suite, case, where the kill landed, outcome)."""
    for name in SCENARIOS:
        folder = os.path.join(work, name.replace(" ", "-"))
        scenario = Scenario(ferrovane, folder, name, tier, seed)
        total = min(scenario.duration(), scenario.duration())
        rng = random.Random(f"{seed}/{name}/moments")
        for i in range(moments):
            at = rng.random() * total
            try:
                where = scenario.kill_at(at)
                yield ("crash", f"{name} #{i} at {at * 1000:.0f} ms", where, "ok")
            except Failure as e:
                yield ("crash", f"{name} #{i} at {at * 1000:.0f} ms", "", f"FAILED: {e}")
        subprocess.run(["rm", "-rf", folder], check=True)
