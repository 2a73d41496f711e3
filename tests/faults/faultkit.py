"""Shared pieces of the fault drivers: trees described as data, runs of the executable, and the
checks that prove nothing was lost."""

import hashlib
import os
import plistlib
import random
import shutil
import subprocess
import tempfile
import time
from contextlib import contextmanager

TEMPORARY_PREFIX = b".ferrovane-tmp-"
CONF = ".ferrovane.conf"
ARCHIVES = ("__changed", "__removed")
FIXED_MTIME = 1_000_000_000  # far from "now", so any later change is more than the 10 s tolerance


class Failure(Exception):
    pass


def expect(condition, message):
    if not condition:
        raise Failure(message)


# ---- trees as data: {relative path (bytes): ("dir",) | ("file", size, seed) | ("link", target)}

def generate_tree(rng, folders, files, big_sizes=()):
    tree = {}
    dirs = [b""]
    for i in range(folders):
        parent = rng.choice(dirs)
        d = os.path.join(parent, b"d%03d" % i)
        tree[d] = ("dir",)
        dirs.append(d)
    for i in range(files):
        tree[os.path.join(rng.choice(dirs), b"f%04d.bin" % i)] = ("file", rng.choice((0, 1, 700, 5000, 70000)),
                                                                   rng.getrandbits(32))
    for i, size in enumerate(big_sizes):
        tree[os.path.join(rng.choice(dirs), b"big%d.bin" % i)] = ("file", size, rng.getrandbits(32))
    tree[b"link-to-f0000"] = ("link", b"f0000.bin")
    return tree


def content(size, seed):
    return random.Random(seed).randbytes(size)


def build(root, tree):
    os.makedirs(root, exist_ok=True)
    for rel in sorted(tree):
        kind = tree[rel]
        path = os.path.join(root, rel)
        if kind[0] == "dir":
            os.makedirs(path, exist_ok=True)
            continue
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if kind[0] == "file":
            with open(path, "wb") as f:
                f.write(content(kind[1], kind[2]))
        else:
            os.symlink(kind[1], path)
        os.utime(path, (FIXED_MTIME, FIXED_MTIME), follow_symlinks=False)
    for rel in sorted(tree, reverse=True) + [b""]:
        if rel == b"" or tree[rel][0] == "dir":
            os.utime(os.path.join(root, rel), (FIXED_MTIME, FIXED_MTIME))


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def files_below(root):
    """{relative path: digest} of every regular file below root."""
    out = {}
    for folder, _, names in os.walk(root):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.isfile(path) and not os.path.islink(path):
                out[os.path.relpath(path, root)] = digest(path)
    return out


# ---- runs

class Ferrovane:
    def __init__(self, executable, log):
        self.executable = executable
        self.env = dict(os.environ, FERROVANE_LOG_FILE=log)
        self.env.pop("DISPLAY", None)

    def args(self, destination):
        return [self.executable, os.fsdecode(destination), "-noUserNotifications"]

    def run(self, destination, timeout=300):
        return subprocess.run(self.args(destination), env=self.env, capture_output=True, timeout=timeout)

    def start(self, destination):
        return subprocess.Popen(self.args(destination), env=self.env, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def config(self, destination, *args, env=None):
        return subprocess.run([self.executable, "config", destination, *args], env=env or self.env,
                              capture_output=True, timeout=60)

    def configure(self, destination, sources, options=()):
        for source in sources:
            r = self.config(destination, "add", source)
            expect(r.returncode == 0, f"config add failed: {r.stdout} {r.stderr}")
        for key, value in options:
            r = self.config(destination, "set", key, str(value))
            expect(r.returncode == 0, f"config set {key} failed: {r.stdout} {r.stderr}")

    def complete(self, destination):
        r = self.run(destination)
        expect(r.returncode == 0, f"the completing run failed ({r.returncode}): {tail(r)}")
        return r


def tail(result):
    return (result.stdout[-600:] + result.stderr[-600:]).decode(errors="replace")


# ---- checks

def mirror_differences(source, mirror, excluded=()):
    """What rsync would still change, extra files and changed contents included."""
    r = subprocess.run(["rsync", "-aAXnc", "--delete", "--itemize-changes",
                        *[b"--exclude=/" + e for e in excluded],
                        os.fsencode(source) + b"/", os.fsencode(mirror) + b"/"], capture_output=True)
    return (r.stdout + r.stderr).decode(errors="replace")


def expect_mirror(source, mirror, excluded=()):
    diff = mirror_differences(source, mirror, excluded)
    expect(diff == "", f"mirror differs from source:\n{diff[:2000]}")


def temporaries(destination):
    root = os.fsencode(destination)
    conf_temp = CONF.encode() + b"."
    found = [os.path.join(root, n) for n in os.listdir(root) if n.startswith(conf_temp) and len(n) == len(conf_temp) + 6]
    for folder, dirs, names in os.walk(root):
        found += [os.path.join(folder, n) for n in names + dirs if n.startswith(TEMPORARY_PREFIX)]
    return found


def expect_no_temporaries(destination):
    left = temporaries(destination)
    expect(not left, f"temporary files remain: {left[:5]}")


def read_configuration(destination):
    with open(os.path.join(destination, CONF), "rb") as f:
        return f.read()


def expect_configuration(destination, old_bytes):
    """The configuration is the old file or a valid new one with the same sources and settings."""
    now = read_configuration(destination)
    if now == old_bytes:
        return
    try:
        new, old = plistlib.loads(now), plistlib.loads(old_bytes)
    except Exception as e:  # noqa: BLE001 - any parse failure is the finding
        raise Failure(f"configuration is not a valid property list: {e}")
    expect(new["settings"] == old["settings"], "configuration settings changed")
    expect([s["sourcePath"] for s in new["sources"]] == [s["sourcePath"] for s in old["sources"]],
           "configuration sources changed")


def archived_copies(destination, name, rel):
    """Every archived version of the mirror's file rel (as digests)."""
    found = set()
    for archive in ARCHIVES:
        base = os.path.join(destination, archive)
        if not os.path.isdir(base):
            continue
        for stamp in os.listdir(base):
            path = os.path.join(base, stamp, name, rel)
            if os.path.isfile(path) and not os.path.islink(path):
                found.add(digest(path))
    return found


def expect_kept(destination, name, expected):
    """Each file the run was about to overwrite or remove ({rel: digest}) is in place or whole
    in an archive."""
    mirror = os.path.join(destination, name)
    for rel, old in expected.items():
        path = os.path.join(mirror, rel)
        in_place = os.path.isfile(path) and not os.path.islink(path) and digest(path) == old
        expect(in_place or old in archived_copies(destination, name, rel), f"lost: {rel}")


# ---- mounts (superuser only)

def is_root():
    return os.geteuid() == 0


@contextmanager
def tmpfs(path, options):
    os.makedirs(path, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", path], check=True)
    try:
        yield path
    finally:
        unmount(path)


def unmount(path):
    for _ in range(50):
        if subprocess.run(["umount", path], capture_output=True).returncode == 0:
            return
        if subprocess.run(["mountpoint", "-q", path]).returncode != 0:
            return
        time.sleep(0.1)
    subprocess.run(["umount", "-l", path], capture_output=True)


def remount(path, options, attempts=200):
    """Remounts with new options; a busy file system is tried again for a while."""
    for _ in range(attempts):
        if subprocess.run(["mount", "-o", "remount," + options, path], capture_output=True).returncode == 0:
            return True
        time.sleep(0.005)
    return False


@contextmanager
def workspace(prefix="ferrovane-faults-"):
    path = tempfile.mkdtemp(prefix=prefix)
    try:
        yield path
    finally:
        shutil.rmtree(path, ignore_errors=True)
