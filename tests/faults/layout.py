"""Source lists written straight into the configuration (as a hand edit or another tool would):
sources that share a last name, lie inside one another, differ only in case, land on a name the
destination keeps for itself, or are not plain absolute paths, in both placements. A list whose
mirrors would collide is refused with one message before anything is touched (the destination,
its configuration included, stays byte for byte as it was); any other list is backed up, every
version that was in the destination before is kept, and each mirror equals its source.

Which lists collide is decided here from the layout rules alone, not from the program."""

import os
import plistlib
import random
import shutil
import subprocess
from contextlib import nullcontext

from faultkit import (CONF, Failure, build, content, contents, expect, expect_kept, expect_mirror, log_since, log_size,
                      read_configuration, run_cases, tail, tmpfs, tree_state, versions, write)
from filesystems import EXFAT

RESERVED = ("__changed", "__removed", "__runs", ".ferrovane.conf")
TEMPORARY_PREFIX = ".ferrovane-tmp-"
BACKUP, DISABLED, EXCLUDE, EXCLUDE_NAME = 1, 0, 2, 3
PLACEMENTS = {1: "a folder per source", 0: "full source paths"}

# Candidate items, relative to the source folder unless they begin with "/" or "!" (a path taken
# as written, not below the source folder). Folders unless named in FILES.
POOL = ["a/Docs", "b/Docs", "c/docs", "x/Photos", "y/photos", "n", "n/inner", "p/__changed", "p/__removed",
        "p/__runs", "q/.ferrovane.conf", "p/.ferrovane-tmp-7", "u/Music", "v/Notes", "a/../b/Docs", "a//Docs",
        "a/Docs/", "!relative/Docs", "/", "/__removed/elsewhere", "@inner", "A/Docs", "p/__CHANGED",
        "d/\u00dcber", "e/\u00fcber"]
FILES = {"q/.ferrovane.conf"}
KEEPS = {placement: f"base{placement}/Keep" for placement in PLACEMENTS}  # backed up before every case


def normalized(path):
    if path == "/":
        return True
    if not path.startswith("/") or path.endswith("/"):
        return False
    return all(part not in ("", ".", "..") for part in path[1:].split("/"))


def fold(text):
    """A name as exFAT compares it: each character in upper case (one to one, as its table maps)."""
    return "".join(c.upper() if len(c.upper()) == 1 else c for c in text)


def mirror(placement, path):
    """The mirror of a source relative to the destination ("" for the destination itself)."""
    if path == "/":
        return ""
    return "/" + path.rstrip("/").rsplit("/", 1)[-1] if placement == 1 else path


def within(path, folder):
    return folder == "" or path == folder or path.startswith(folder + "/")


def collision(placement, destination, items, case_insensitive=False):
    """What a refusal may name, or None for a list that is fine: each entry is one violation, the
    items its message names. The program reports the first violation it meets, whichever that is."""
    key = fold if case_insensitive else (lambda text: text)
    sources = [path for path, mode in items if mode == BACKUP]
    found = [[path] for path, mode in items if mode in (BACKUP, EXCLUDE) and not normalized(path)]
    for path in sources:
        if path != "/" and within(path, destination):
            found.append([path])
        first = key(mirror(placement, path)[1:].split("/", 1)[0])
        if mirror(placement, path) and (first in map(key, RESERVED) or first.startswith(key(TEMPORARY_PREFIX))):
            found.append([path])
    for i, a in enumerate(sources):
        for b in sources[i + 1:]:
            ma, mb = key(mirror(placement, a)), key(mirror(placement, b))
            if within(ma, mb) or within(mb, ma):
                found.append([a, b])
    return found or None


class Sources:
    """Every candidate folder and file under work/src, each with contents of its own."""

    def __init__(self, work):
        self.root = os.path.join(work, "src")
        self.destination = os.path.join(work, "dest")
        for i, rel in enumerate(POOL + list(KEEPS.values())):
            if rel[0] in "/!@" or "//" in rel or ".." in rel or rel.endswith("/"):
                continue
            path = os.path.join(self.root, rel)
            if rel in FILES:
                os.makedirs(os.path.dirname(path), exist_ok=True)
                write(path, content(100 + i, i))
            else:
                build(os.fsencode(path), {b"f%d" % i: ("file", 200 + i, i), b"sub": ("dir",),
                                          b"sub/g": ("file", 50 + i, 100 + i)})

    def path(self, candidate):
        if candidate == "@inner":
            return self.destination + "/inner"
        if candidate.startswith("!"):
            return candidate[1:]
        return candidate if candidate.startswith("/") else self.root + "/" + candidate


def prepared(ferrovane, sources, placement, destination):
    """A destination of the source KEEPS alone, with a changed and a removed version archived."""
    os.makedirs(destination)
    keep = sources.path(KEEPS[placement])
    shutil.rmtree(keep)
    build(os.fsencode(keep), {b"f": ("file", 300, 1), b"sub": ("dir",), b"sub/g": ("file", 60, 2)})
    ferrovane.configure(destination, [keep], (("syncMode", placement), ("moveChangedFiles", "yes")))
    ferrovane.complete(destination)
    write(os.path.join(keep, "f"), content(999, placement + 7), 2_000_000_000 + placement)
    os.unlink(os.path.join(keep, "sub", "g"))
    ferrovane.complete(destination)
    for archive in ("__changed", "__removed"):
        expect(os.listdir(os.path.join(destination, archive)), f"the prepared destination has nothing in {archive}")
    return destination


def write_items(destination, placement, items):
    configuration = plistlib.loads(read_configuration(destination))
    configuration["settings"]["syncMode"] = placement
    configuration["sources"] = [{"sourcePath": p, "enabled": mode} for p, mode in items]
    write(os.path.join(destination, CONF), plistlib.dumps(configuration))


def whole_system(items):
    return ("/", BACKUP) in items


def check(ferrovane, sources, placement, template, items, folder):
    destination = sources.destination
    shutil.rmtree(destination, ignore_errors=True)
    # Should the refusal ever fail, a backup of the whole system fills a small tmpfs, not the disk.
    with tmpfs(destination, "size=64m") if whole_system(items) else nullcontext():
        shutil.copytree(template, destination, symlinks=True, dirs_exist_ok=True)
        checked(ferrovane, placement, items, destination)


def checked(ferrovane, placement, items, destination, case_insensitive=False):
    write_items(destination, placement, items)
    named = collision(placement, destination, items, case_insensitive)
    before_tree, before = tree_state(destination), versions(destination)
    offset = log_size(ferrovane)
    try:
        # A refusal is immediate; a backup of the whole system that went ahead is cut short.
        r = ferrovane.run(destination, timeout=20 if whole_system(items) else 120)
    except subprocess.TimeoutExpired:
        raise Failure("the run went ahead and did not end")
    said = r.stdout + r.stderr
    if named is not None:
        expect(r.returncode == 255, f"not refused (exit {r.returncode}): {tail(r)}")
        expect(b"Sync finished" not in said, "the run said it finished")
        errors = [line for line in r.stderr.split(b"\n") if line.startswith(b"ferrovane: error: ")]
        expect(len(errors) == 1, f"not one message: {r.stderr[-600:]}")
        message = errors[0][len(b"ferrovane: error: "):]
        expect(any(all(name.encode() in message for name in violation) for violation in named),
               f"the message names none of the violations {named}: {message}")
        expect(message.strip() in log_since(ferrovane, offset), "the message is not in the log")
        expect(tree_state(destination) == before_tree, "the destination changed")
        return
    expect(r.returncode == 0, f"a list that is fine was not backed up (exit {r.returncode}): {tail(r)}")
    expect_kept(destination, before)
    for path, mode in items:
        if mode != BACKUP or not os.path.lexists(path):
            continue
        target = destination + mirror(placement, path)
        if os.path.isdir(path) and not case_insensitive:
            excluded = [e[len(path) + 1:].encode() for e, m in items if m == EXCLUDE and e.startswith(path + "/")]
            expect_mirror(path, target, excluded)
        else:
            expect(contents(path) == contents(target), f"the mirror of {path} differs")


def generated(rng, sources, placement, count):
    """count random lists of two to four items; the first always backs up the placement's KEEPS."""
    lists = []
    for _ in range(count):
        items = [(sources.path(KEEPS[placement]), BACKUP)]
        for candidate in rng.sample(POOL, rng.randint(1, 3)):
            mode = rng.choice((BACKUP, BACKUP, BACKUP, DISABLED, EXCLUDE))
            items.append((sources.path(candidate), mode))
        lists.append(items)
    return lists


def handpicked(sources, placement):
    """One list for each kind of collision and each thing that must not count as one."""
    p = sources.path
    keep = (p(KEEPS[placement]), BACKUP)
    return [
        [keep, (p("a/Docs"), BACKUP), (p("b/Docs"), BACKUP)],                  # one last name
        [keep, (p("a/Docs"), BACKUP), (p("b/Docs"), DISABLED)],
        [keep, (p("a/Docs"), BACKUP), (p("b/Docs"), EXCLUDE), ("Docs.bak", EXCLUDE_NAME)],
        [keep, (p("n"), BACKUP), (p("n/inner"), BACKUP)],                       # nested
        [keep, ("/", BACKUP)],
        [keep, (p("x/Photos"), BACKUP), (p("y/photos"), BACKUP)],               # case only
        [keep, (p("p/__changed"), BACKUP)],                                     # reserved names
        [keep, (p("p/__removed"), BACKUP), (p("u/Music"), BACKUP)],
        [keep, (p("p/__runs"), BACKUP)],
        [keep, (p("q/.ferrovane.conf"), BACKUP)],
        [keep, (p("p/.ferrovane-tmp-7"), BACKUP)],
        [keep, ("/__removed/elsewhere", BACKUP)],
        [keep, (p("a/../b/Docs"), BACKUP)],                                     # not plain paths
        [keep, (p("a//Docs"), BACKUP)],
        [keep, (p("a/Docs/"), BACKUP)],
        [keep, ("relative/Docs", BACKUP)],
        [keep, (p("a/Docs"), BACKUP), (p("a/Docs") + "/../x", EXCLUDE)],
        [keep, (p("@inner"), BACKUP)],                                          # inside the destination
        [keep, (p("v/Notes"), BACKUP), (p("u/Music"), BACKUP)],                 # nothing collides
        [keep, (p("n"), BACKUP), (p("n/inner"), EXCLUDE), (p("u/Music"), EXCLUDE)],
        [keep, (p("v/Notes"), BACKUP), (p("v/Notes"), EXCLUDE)],                # an exclusion of a whole source
    ]


def case_insensitive(ferrovane, sources, work):
    """On exFAT, names that differ only in case are one name: such sources are refused too."""
    p = sources.path
    with EXFAT.mounted(work) as mnt:
        for placement in PLACEMENTS:
            keep = (p(KEEPS[placement]), BACKUP)
            for i, items in enumerate([[keep, (p("x/Photos"), BACKUP), (p("y/photos"), BACKUP)],
                                       [keep, (p("a/Docs"), BACKUP), (p("A/Docs"), BACKUP)],
                                       [keep, (p("d/\u00dcber"), BACKUP), (p("e/\u00fcber"), BACKUP)],
                                       [keep, (p("p/__CHANGED"), BACKUP)],
                                       [keep, (p("v/Notes"), BACKUP), (p("u/Music"), BACKUP)]]):
                destination = os.path.join(mnt, f"dest-{placement}-{i}")
                prepared(ferrovane, sources, placement, destination)
                checked(ferrovane, placement, items, destination, case_insensitive=True)


def run(ferrovane, work, tier, seed):
    rng = random.Random(seed)
    sources = Sources(work)
    for placement, label in PLACEMENTS.items():
        prepared_destination = prepared(ferrovane, sources, placement, os.path.join(work, f"template-{placement}"))
        lists = handpicked(sources, placement) + generated(rng, sources, placement, 6 if tier == "quick" else 40)
        cases, root_only = [], set()
        for items in lists:
            shown = ", ".join(("" if mode == BACKUP else f"{mode}:") + path.replace(sources.root + "/", "")
                              for path, mode in items[1:])
            cases.append((f"{label}: {shown}",
                          lambda f, items=items: check(ferrovane, sources, placement, prepared_destination, items, f)))
            if whole_system(items):
                root_only.add(cases[-1][0])
        yield from run_cases("layout", cases, os.path.join(work, f"cases-{placement}"), root_only=root_only.__contains__,
                             why="the source / needs a tmpfs destination")
    yield from run_cases("layout", [("exFAT, both placements: sources that differ only in case, a reserved name in "
                                     "another case", lambda w: case_insensitive(ferrovane, sources, w))],
                         os.path.join(work, "exfat"), root_only=lambda _: True, why="needs the superuser to mount an image")
