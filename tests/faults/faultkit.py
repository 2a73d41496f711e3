"""Shared pieces of the fault drivers: trees described as data, runs of the executable, and the
checks that prove nothing was lost."""

import array
import errno
import fcntl
import hashlib
import os
import re
import plistlib
import random
import shutil
import stat
import subprocess
import tempfile
import time
from contextlib import contextmanager

TEMPORARY_PREFIX = b".ferrovane-tmp-"
CONF = ".ferrovane.conf"
ARCHIVES = ("__changed", "__removed")
RUNS = "__runs"
FIXED_MTIME = 1_000_000_000  # far from "now", so any later change is more than the 10 s tolerance
FS_IOC_GETFLAGS, FS_IOC_SETFLAGS, FS_IMMUTABLE_FL, FS_APPEND_FL = 0x80086601, 0x40086602, 0x10, 0x20


class Failure(Exception):
    pass


class Unavailable(Failure):
    """What a case needs cannot be had here (a tool, a driver): the case is skipped, not failed."""


def require(*tools):
    lacking = [t for t in tools if shutil.which(t) is None]
    if lacking:
        raise Unavailable(f"no {', '.join(lacking)}")


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


def write(path, data, mtime=None):
    """Writes a file whole; mtime (seconds) dates it."""
    with open(path, "wb") as f:
        f.write(data)
    if mtime is not None:
        os.utime(path, (mtime, mtime))


def date_folders(root, when=1_500_000_000):
    """Dates every folder below root long before any run: a run's own folder dates then always
    differ by more than the 10 s tolerance."""
    for folder, _, _ in os.walk(root):
        os.utime(folder, (when, when))


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
            write(path, content(kind[1], kind[2]))
        else:
            os.symlink(kind[1], path)
        os.utime(path, (FIXED_MTIME, FIXED_MTIME), follow_symlinks=False)
    for rel in sorted(tree, reverse=True) + [b""]:
        if rel == b"" or tree[rel][0] == "dir":
            os.utime(os.path.join(root, rel), (FIXED_MTIME, FIXED_MTIME))


def inode_flags(path, add=0, remove=0):
    """A file's or folder's inode flags, after adding and removing those given; None for any other
    item and where the file system keeps none."""
    if os.path.islink(path) or not (os.path.isfile(path) or os.path.isdir(path)):
        return None
    fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_NOFOLLOW)
    try:
        flags = array.array("l", [0])
        fcntl.ioctl(fd, FS_IOC_GETFLAGS, flags)
        if add or remove:
            flags[0] = (flags[0] | add) & ~remove
            fcntl.ioctl(fd, FS_IOC_SETFLAGS, flags)
        return flags[0]
    except OSError:
        return None
    finally:
        os.close(fd)


def contents(root):
    """The digest of every file below root by its path there; of root itself when it is a file."""
    if not os.path.isdir(root):
        return {"": digest(root)}
    return {os.path.relpath(os.path.join(folder, name), root): digest(os.path.join(folder, name))
            for folder, _, names in os.walk(root) for name in names}


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def tree_state(root):
    """Everything a run could change below root, root included: each item's kind, owner, mode, size,
    date, inode, content, attribute names and inode flags."""
    root = os.fsencode(root)
    out = {}
    for folder, dirs, names in os.walk(root):
        for name in [b""] + dirs + names:
            path = os.path.join(folder, name)
            st = os.lstat(path)
            try:
                attributes = sorted(os.listxattr(path, follow_symlinks=False))
            except OSError:
                attributes = None
            data = digest(path) if stat.S_ISREG(st.st_mode) else ""
            out[os.path.relpath(path, root)] = (st.st_mode, st.st_uid, st.st_gid, st.st_size, st.st_mtime_ns,
                                                st.st_ino, data, attributes, inode_flags(path))
    return out


# ---- runs

class Ferrovane:
    def __init__(self, executable, log, prefix=(), **env):
        """prefix runs the executable through another command (another user, strace)."""
        self.executable, self.prefix = executable, list(prefix)
        # The status of run attempts and the trash that a restore's replaced files go to stay with
        # the suite's own files, never in the user's state, whoever runs the program.
        own = os.path.dirname(os.path.abspath(log))
        self.env = dict(os.environ, FERROVANE_LOG_FILE=log, FERROVANE_JOB_STATUS_DIRECTORY=os.path.join(own, "jobs"),
                        XDG_DATA_HOME=os.path.join(own, "data"), **env)
        self.env.pop("DISPLAY", None)

    def args(self, destination):
        return [*self.prefix, self.executable, os.fsdecode(destination), "-noUserNotifications"]

    def run(self, destination, timeout=300):
        return subprocess.run(self.args(destination), env=self.env, capture_output=True, timeout=timeout)

    def start(self, destination):
        return subprocess.Popen(self.args(destination), env=self.env, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def with_env(self, **env):
        """The same program, log and prefix with more in its environment (test hooks)."""
        return Ferrovane(self.executable, self.env["FERROVANE_LOG_FILE"], self.prefix, **env)

    def command(self, *args, env=None, timeout=300):
        """A subcommand (config, restore, runs...) or any other command line of the program."""
        return subprocess.run([*self.prefix, self.executable, *args], env=env or self.env, capture_output=True,
                              timeout=timeout)

    def config(self, destination, *args, env=None):
        return self.command("config", destination, *args, env=env, timeout=60)

    def configure(self, destination, sources, options=()):
        for source in sources:
            expect_status(self.config(destination, "add", source), 0, "config add")
        for key, value in options:
            expect_status(self.config(destination, "set", key, str(value)), 0, f"config set {key}")

    def complete(self, destination):
        r = self.run(destination)
        expect_status(r, 0, "the completing run")
        return r

    def start_held(self, destination, hooks, moment, pattern=b""):
        """Starts a run that holds at moment (reached by an item whose path holds pattern) and
        waits until it is there; hooks.release(moment) lets it go on."""
        hooks.arm(moment, pattern)
        process = self.with_env(**hooks.env).start(destination)
        try:
            hooks.wait(moment, process)
        except Failure:
            process.kill()
            process.communicate()
            raise
        return process


class Mirrored:
    """A source folder work/src/data built from tree, its destination (work/dest unless given)
    configured with options and mirrored once; before holds the versions the destination then
    held. Paths are bytes when work is."""

    NAME = "data"

    def __init__(self, ferrovane, work, tree, options=(), first_run=True, destination=None):
        self.ferrovane, self.work = ferrovane, work
        self.kind = os.fsencode if isinstance(work, bytes) else os.fsdecode
        self.source = os.path.join(work, self.kind("src"), self.kind(self.NAME))
        self.destination = destination or os.path.join(work, self.kind("dest"))
        self.mirror = os.path.join(self.destination, self.kind(self.NAME))
        build(os.fsencode(self.source), tree)
        os.makedirs(self.destination)
        ferrovane.configure(self.destination, [self.source], options)
        if first_run:
            ferrovane.complete(self.destination)
        self.before = versions(self.destination)

    def path(self, rel):
        return os.path.join(self.source, self.kind(rel))


class Replayed(Mirrored):
    """A Mirrored destination in work/live that keep() saves once prepared; each attempt restore()s
    it and starts from that very state."""

    def __init__(self, ferrovane, work, tree, options=(), first_run=True):
        super().__init__(ferrovane, os.path.join(work, "live"), tree, options, first_run)
        self.template = os.path.join(work, "template")

    def keep(self):
        self.before, self.configuration = versions(self.destination), read_configuration(self.destination)
        subprocess.run(["cp", "-a", self.work, self.template], check=True)

    def restore(self):
        subprocess.run(["rm", "-rf", self.work], check=True)
        subprocess.run(["cp", "-a", self.template, self.work], check=True)


class Hooks:
    """Holds a run at a named moment (see FVTestHook): arm() before the run starts, with the
    environment of hooks.env given to it; wait() until the moment is reached; release() lets it go on."""

    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder, exist_ok=True)
        self.env = {"FERROVANE_TEST_HOOKS": folder}

    def arm(self, moment, pattern=b"", hold=True):
        for suffix in ("", ".fired", ".reached", ".release"):
            if os.path.lexists(os.path.join(self.folder, moment + suffix)):
                os.unlink(os.path.join(self.folder, moment + suffix))
        if hold:
            os.mkfifo(os.path.join(self.folder, moment + ".release"))
        with open(os.path.join(self.folder, moment), "wb") as f:
            f.write(pattern)

    def wait(self, moment, process=None, timeout=60):
        """The path at which the moment was reached; fails when the run ends first."""
        reached = os.path.join(self.folder, moment + ".reached")
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            if os.path.exists(reached):
                with open(reached, "rb") as f:
                    return f.read()
            if process is not None and process.poll() is not None:
                raise Failure(f"the run ended (status {process.returncode}) before the moment {moment!r}")
            time.sleep(0.01)
        raise Failure(f"the run never reached the moment {moment!r}")

    def release(self, moment, timeout=60):
        # The run opens the FIFO just after it wrote ".reached": until then there is no reader.
        end = time.monotonic() + timeout
        while True:
            try:
                os.close(os.open(os.path.join(self.folder, moment + ".release"), os.O_WRONLY | os.O_NONBLOCK))
                return
            except OSError as error:
                if error.errno != errno.ENXIO or time.monotonic() > end:
                    raise
                time.sleep(0.005)


def tail(result):
    return (result.stdout[-600:] + result.stderr[-600:]).decode(errors="replace")


def expect_status(result, status, what):
    expect(result.returncode == status, f"{what} exited {result.returncode}, expected {status}: {tail(result)}")


def finish(process, timeout=120):
    """Waits for a started run; its result as subprocess.run gives it."""
    out, err = process.communicate(timeout=timeout)
    return subprocess.CompletedProcess(process.args, process.returncode, out, err)


# ---- checks

def mirror_differences(source, mirror, excluded=(), folder_dates=False):
    """What rsync would still change, extra files and changed contents included."""
    r = subprocess.run(["rsync", "-aHAXnc", "--delete", "--itemize-changes",
                        *[b"--exclude=/" + e for e in excluded],
                        os.fsencode(source) + b"/", os.fsencode(mirror) + b"/"], capture_output=True)
    # Folder dates are left out unless asked for: a folder touched while a fault struck may keep a
    # date within the run's 10-second window, which by design is no change.
    lines = (r.stdout + r.stderr).decode(errors="replace").splitlines(keepends=True)
    return "".join(line for line in lines if folder_dates or not re.match(r"^\.d\.\.t\.+ ", line))


def expect_mirror(source, mirror, excluded=(), folder_dates=False):
    diff = mirror_differences(source, mirror, excluded, folder_dates)
    expect(diff == "", f"mirror differs from source:\n{diff[:2000]}")


def temporaries(destination):
    root = os.fsencode(destination)
    conf_temp = CONF.encode() + b"."
    found = [os.path.join(root, n) for n in os.listdir(root) if n.startswith(conf_temp) and len(n) == len(conf_temp) + 6]
    for folder, dirs, names in os.walk(root):
        # A run's unfinished record cannot go where the destination turned read-only; the next run
        # removes it (the records part checks that).
        if folder == root and RUNS.encode() in dirs:
            dirs.remove(RUNS.encode())
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


def version(root, rel):
    """What the destination holds at rel: a file's digest or a link's target; None for anything
    else, and for a path that passes through a link below root (a planted link never counts)."""
    path = os.path.join(root, rel)
    if os.path.realpath(os.path.dirname(path)) != os.path.normpath(os.path.dirname(path)):
        return None
    if os.path.islink(path):
        try:
            return b"link:" + os.readlink(path)
        except PermissionError:
            # sshfs will not read back a link that leaves its folder: it is known by its length.
            return b"link of %d bytes" % os.lstat(path).st_size
    if os.path.isfile(path):
        return digest(path).encode()
    return None


def versions(destination):
    """Every version the destination holds, in the mirror and in the archives: {path relative to
    the destination: version}. The configuration, the lock, temporaries and the record of runs
    are not versions."""
    root = os.path.realpath(os.fsencode(destination))
    out = {}
    for folder, dirs, names in os.walk(root):
        if folder == root and RUNS.encode() in dirs:
            dirs.remove(RUNS.encode())
        for name in names + [d for d in dirs if os.path.islink(os.path.join(folder, d))]:
            rel = os.path.relpath(os.path.join(folder, name), root)
            if name.startswith(TEMPORARY_PREFIX) or (folder == root and name.startswith(b".ferrovane")):
                continue
            out[rel] = version(root, rel)
    return out


def expect_kept(destination, before, replaceable=None):
    """Each version of the snapshot before is, byte for byte, still at its place in the mirror or
    at its archived path in some stamp folder of __changed or __removed; an archived version
    stays where it is. replaceable ({path: version}) names the mirror files a run may overwrite
    without archiving them (changed files with that archive off): the new version, whole, in
    their place keeps them too."""
    replaceable = replaceable or {}
    root = os.path.realpath(os.fsencode(destination))
    stamps = []
    for archive in ARCHIVES:
        base = os.path.join(root, archive.encode())
        if os.path.isdir(base) and not os.path.islink(base):
            stamps += [os.path.join(archive.encode(), s) for s in os.listdir(base)]
    lost = []
    for rel, old in before.items():
        if version(root, rel) in (old, replaceable.get(rel, old)):
            continue
        if rel.split(b"/", 1)[0].decode(errors="replace") in ARCHIVES \
                or not any(version(root, os.path.join(s, rel)) == old for s in stamps):
            lost.append(rel)
    expect(not lost, f"{len(lost)} of {len(before)} earlier versions lost: {sorted(lost)[:6]}")


def mirror_of(destination, source):
    """Where the default placement mirrors source."""
    return os.path.join(os.fsencode(destination), os.path.basename(os.fsencode(source).rstrip(b"/")))


def expect_clean_rerun(ferrovane, destination, sources, before, configuration=None, replaceable=None):
    """Every earlier version is kept (see expect_kept) and the configuration whole (when given), before
    and after a run without faults, which completes and leaves rsync nothing to do."""
    for rerun in (True, False):
        expect_kept(destination, before, replaceable)
        if configuration is not None:
            expect_configuration(destination, configuration)
        if rerun:
            ferrovane.complete(destination)
    for source in sources:
        expect_mirror(source, mirror_of(destination, source))
    expect_no_temporaries(destination)


def next_second():
    """Waits for the wall clock's next second."""
    time.sleep(1.02 - time.time() % 1)


def record_stamps(destination):
    """The stamps of the run records the destination holds, oldest first."""
    folder = os.path.join(destination, RUNS)
    return sorted(n[:-len(".fvmanifest")] for n in os.listdir(folder) if n.endswith(".fvmanifest")) \
        if os.path.isdir(folder) else []


def recorded(destination, run):
    """run()'s result and the stamp of the one record it added to the destination."""
    known = set(record_stamps(destination))
    r = run()
    new = [s for s in record_stamps(destination) if s not in known]
    expect(len(new) == 1, f"the run left {new} as new records: {tail(r)}")
    return r, new[0]


def log_size(ferrovane):
    try:
        return os.path.getsize(ferrovane.env["FERROVANE_LOG_FILE"])
    except FileNotFoundError:
        return 0


def log_since(ferrovane, offset):
    try:
        with open(ferrovane.env["FERROVANE_LOG_FILE"], "rb") as f:
            f.seek(offset)
            return f.read()
    except FileNotFoundError:
        return b""


# ---- cases and mounts

def run_cases(part, cases, work, root_only=lambda name: False, why="needs the superuser", after=None):
    """Runs each (name, body) on a folder of its own below work and yields a result row per case;
    cases that root_only names are skipped for an ordinary user, and so is a body that raises
    Unavailable. What a body returns is the row's "where". after(folder) tidies up."""
    for i, (name, body) in enumerate(cases):
        folder = os.path.join(work, str(i))
        os.makedirs(folder)
        if not is_root() and root_only(name):
            yield (part, name, why, "skipped")
            continue
        try:
            yield (part, name, body(folder) or "", "ok")
        except Unavailable as e:
            yield (part, name, str(e), "skipped")
        except Failure as e:
            yield (part, name, "", f"FAILED: {e}")
        if after:
            after(folder)


def is_root():
    return os.geteuid() == 0


def attempt(command, what):
    """Runs a command that sets something up; its output, or Unavailable when it fails (a tool or
    a driver is missing)."""
    r = subprocess.run(command, capture_output=True)
    if r.returncode != 0:
        raise Unavailable(f"{what} failed: {r.stderr.decode(errors='replace')[-200:]}")
    return r.stdout.decode().strip()


@contextmanager
def mounted(command, mnt):
    """mnt mounted by command until the block ends; Unavailable when it cannot be."""
    os.makedirs(mnt, exist_ok=True)
    attempt(command, "mounting " + os.path.basename(mnt))
    try:
        yield mnt
    finally:
        unmount(mnt)


def tmpfs(path, options):
    return mounted(["mount", "-t", "tmpfs", "-o", options, "tmpfs", path], path)


def unmount(path):
    for _ in range(50):
        if subprocess.run(["umount", path], capture_output=True).returncode == 0:
            return
        if subprocess.run(["mountpoint", "-q", path]).returncode != 0:
            return
        time.sleep(0.1)
    subprocess.run(["umount", "-l", path], capture_output=True)


def remount(path, options):
    """Remounts with new options while no run is under way; whether it worked."""
    return subprocess.run(["mount", "-o", "remount," + options, path], capture_output=True).returncode == 0


@contextmanager
def workspace(prefix="ferrovane-faults-"):
    path = tempfile.mkdtemp(prefix=prefix)
    try:
        yield path
    finally:
        shutil.rmtree(path, ignore_errors=True)
